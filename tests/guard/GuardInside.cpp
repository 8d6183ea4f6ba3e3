#include "GuardInside.h"

#include <atomic>
#include <memory>

namespace tolm::test {
namespace {

using TolmLPCFrame::CLPCCommunicateWithTolmGuard;
using TolmLPCFrame::CTolmGuardConnectManager;

// A private member may be named in an explicit instantiation; a tag takes a pointer out of there.
struct EndpointMembers {
  std::atomic<std::int32_t> CTolmGuardConnectManager::*server_handle;
  std::atomic<std::int32_t> CTolmGuardConnectManager::*session_id;
  std::atomic<std::uint16_t> CTolmGuardConnectManager::*port;
  os::Mutex CTolmGuardConnectManager::*waiter_mutex;
  std::map<std::string, std::shared_ptr<TolmLPCFrame::ConditionAndMutex>> CTolmGuardConnectManager::*waiters;
  os::Mutex CTolmGuardConnectManager::*response_mutex;
  std::map<std::string, std::string> CTolmGuardConnectManager::*responses;
  TolmLPCFrame::EventHandled CTolmGuardConnectManager::*last_event;
};
EndpointMembers Of(const CTolmGuardConnectManager&);

template <auto... kMembers>
struct OpenEndpoint {
  friend EndpointMembers Of(const CTolmGuardConnectManager&) { return {kMembers...}; }
};
template struct OpenEndpoint<
    &CTolmGuardConnectManager::server_handle_, &CTolmGuardConnectManager::session_id_,
    &CTolmGuardConnectManager::tolmguard_port_, &CTolmGuardConnectManager::waiter_mutex_,
    &CTolmGuardConnectManager::map_response_waiter_, &CTolmGuardConnectManager::response_mutex_,
    &CTolmGuardConnectManager::map_response_, &CTolmGuardConnectManager::last_event_handled_>;

struct GuardMembers {
  std::atomic<bool> CLPCCommunicateWithTolmGuard::*need_notify;
  std::atomic<bool> CLPCCommunicateWithTolmGuard::*inited_finished;
  os::Mutex CLPCCommunicateWithTolmGuard::*mutex;
  std::string CLPCCommunicateWithTolmGuard::*agent_event_name;
  std::string CLPCCommunicateWithTolmGuard::*cmdline;
  std::vector<std::string> CLPCCommunicateWithTolmGuard::*verified;
  bool CLPCCommunicateWithTolmGuard::*sent;
  std::shared_ptr<const std::string> CLPCCommunicateWithTolmGuard::*init_state;
};
GuardMembers Of(const CLPCCommunicateWithTolmGuard&);

template <auto... kMembers>
struct OpenGuard {
  friend GuardMembers Of(const CLPCCommunicateWithTolmGuard&) { return {kMembers...}; }
};
template struct OpenGuard<
    &CLPCCommunicateWithTolmGuard::need_notify_lpc_frame_init_,
    &CLPCCommunicateWithTolmGuard::frame_inited_finished_, &CLPCCommunicateWithTolmGuard::mutex_,
    &CLPCCommunicateWithTolmGuard::agent_event_name_, &CLPCCommunicateWithTolmGuard::plugin_cmdline_,
    &CLPCCommunicateWithTolmGuard::verified_plugins_, &CLPCCommunicateWithTolmGuard::frame_init_state_sent_,
    &CLPCCommunicateWithTolmGuard::frame_init_state_>;

}  // namespace

void ForgetEverything(CTolmGuardConnectManager& endpoint) {
  const EndpointMembers of = Of(endpoint);
  endpoint.*of.server_handle = -1;
  endpoint.*of.session_id = -1;
  endpoint.*of.port = 0;
  (endpoint.*of.waiters).clear();
  (endpoint.*of.responses).clear();
  (endpoint.*of.last_event).reset();
}

void ForgetEverything(CLPCCommunicateWithTolmGuard& guard) {
  const GuardMembers of = Of(guard);
  guard.*of.need_notify = true;
  guard.*of.inited_finished = false;
  (guard.*of.agent_event_name).clear();
  (guard.*of.cmdline).clear();
  (guard.*of.verified).clear();
  guard.*of.sent = false;
  (guard.*of.init_state).reset();
}

std::uint16_t PortOf(const CTolmGuardConnectManager& endpoint) {
  return endpoint.*Of(endpoint).port;
}

std::int32_t ServerHandleOf(const CTolmGuardConnectManager& endpoint) {
  return endpoint.*Of(endpoint).server_handle;
}

std::map<std::string, std::string> StoredReplies(CTolmGuardConnectManager& endpoint) {
  os::Mutex& mutex = endpoint.*Of(endpoint).response_mutex;
  const os::MutexLock lock(mutex);
  return endpoint.*Of(endpoint).responses;
}

std::map<std::string, bool> Waiters(CTolmGuardConnectManager& endpoint) {
  os::Mutex& mutex = endpoint.*Of(endpoint).waiter_mutex;
  const os::MutexLock lock(mutex);
  std::map<std::string, bool> waiters;
  for (const auto& [guid, waiter] : endpoint.*Of(endpoint).waiters) waiters[guid] = waiter != nullptr;
  return waiters;
}

std::string AgentEventNameOf(CLPCCommunicateWithTolmGuard& guard) {
  os::Mutex& mutex = guard.*Of(guard).mutex;
  const os::MutexLock lock(mutex);
  return guard.*Of(guard).agent_event_name;
}

std::vector<std::string> VerifiedPlugins(CLPCCommunicateWithTolmGuard& guard) {
  os::Mutex& mutex = guard.*Of(guard).mutex;
  const os::MutexLock lock(mutex);
  return guard.*Of(guard).verified;
}

}  // namespace tolm::test
