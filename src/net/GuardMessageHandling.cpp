// What the guard says, and its replies paired with the senders that wait for them.

#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/Constants.h"
#include "common/MessageJson.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelWarning;

void CTolmGuardConnectManager::DealMessage(std::int32_t session_id, const std::string& raw) {
  std::string method;
  std::string guid;
  {
    // Gone before the text is handled: texts may be large.
    proto::CRapidJsonProto message;
    if (!ReadMessage(message, raw)) {
      TOLM_LOG(kLogLevelWarning, kTagWebSocket, "set_str failed.");
      return;
    }
    TOLM_LOG(kLogLevelInfo, kTagWebSocket,
             "Succeed  to receive message from tolmguard, session_id:%d, str_raw_msg:%s ", session_id,
             raw.c_str());
    method = message.get_v("/requestData/method", "");
    guid = message.get_v("/guid", "");
  }

  auto& communicator = CLPCCommunicateWithTolmGuard::GetInstance();
  const auto answer = [&](const std::string& text) {
    // On the connection that asked, which need not be the current one.
    SendMessageToTolmGuard(session_id, Tolm::Net::kWebsocketText, text.data(),
                           static_cast<std::uint32_t>(text.size()), true);
  };
  if (method == "GetProcessInitStateList") {
    answer(communicator.BuildProcessInitStateListResponse(guid));
  } else if (method == kGuardSetProcessGuardStateList || method == kGuardNotifyLpcFrameInit) {
    DealReply(guid, raw);
  } else if (method == "GetMianProcessPath") {
    answer(communicator.BuildMainProcessPathResponse(guid));
  } else if (method == "NotifyProcessState") {
    communicator.DealNotifyProcessState(raw);
  }
}

void CTolmGuardConnectManager::DealReply(const std::string& guid, const std::string& raw) {
  SaveResponse(guid, raw);
  const auto waiter = FindResponseWaiter(guid);
  if (waiter == nullptr) return;
  // The sender holds this mutex until it waits, so it cannot miss the wake-up.
  const os::MutexLock lock(waiter->mutex);
  waiter->condition.notify_all();
}

void CTolmGuardConnectManager::SendAndWaitResponse(std::string& reply, const std::string& message,
                                                   const std::string& guid, std::int32_t timeout_ms) {
  reply.clear();
  const auto waiter = std::make_shared<ConditionAndMutex>();
  if (!AddResponseWaiter(guid, waiter)) return;
  // Held across the send: a reply that comes at once finds its sender waiting.
  os::UniqueLock lock(waiter->mutex);
  SendMessageToTolmGuard(GetSessionId(), Tolm::Net::kWebsocketText, message.data(),
                         static_cast<std::uint32_t>(message.size()), true);
  const bool stored = waiter->WaitFor(lock, timeout_ms, [&] { return IsResponseStored(guid); });
  RemoveResponseWaiter(guid);
  if (stored) reply = TakeResponse(guid);
}

bool CTolmGuardConnectManager::AddResponseWaiter(const std::string& guid,
                                                 const std::shared_ptr<ConditionAndMutex>& waiter) {
  const os::MutexLock lock(waiter_mutex_);
  return map_response_waiter_.try_emplace(guid, waiter).second;
}

void CTolmGuardConnectManager::RemoveResponseWaiter(const std::string& guid) {
  const os::MutexLock lock(waiter_mutex_);
  const auto found = map_response_waiter_.find(guid);
  if (found != map_response_waiter_.end()) found->second.reset();
}

std::shared_ptr<ConditionAndMutex> CTolmGuardConnectManager::FindResponseWaiter(
    const std::string& guid) const {
  const os::MutexLock lock(waiter_mutex_);
  const auto found = map_response_waiter_.find(guid);
  return found == map_response_waiter_.end() ? nullptr : found->second;
}

bool CTolmGuardConnectManager::SaveResponse(const std::string& guid, const std::string& text) {
  const os::MutexLock lock(response_mutex_);
  map_response_.insert_or_assign(guid, text);
  return true;
}

bool CTolmGuardConnectManager::IsResponseStored(const std::string& guid) const {
  const os::MutexLock lock(response_mutex_);
  return map_response_.contains(guid);
}

std::string CTolmGuardConnectManager::TakeResponse(const std::string& guid) {
  const os::MutexLock lock(response_mutex_);
  auto taken = map_response_.extract(guid);
  return taken.empty() ? std::string() : std::move(taken.mapped());
}

}  // namespace TolmLPCFrame
