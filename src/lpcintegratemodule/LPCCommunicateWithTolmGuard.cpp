#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "TolmBase/GuidUtil.h"
#include "TolmBase/LogLine.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/MessageJson.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "net/TolmGuardConnectionManager.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelInfo;

namespace {

constexpr char kPathGuid[] = "/guid";
constexpr char kPathMethod[] = "/requestData/method";

// Milliseconds.
constexpr std::int32_t kNotifyLpcFrameInitTimeOut = 5000;
constexpr std::int32_t kSetProcessGuardStateListTimeOut = 3000;
constexpr int kNotifyLpcFrameInitAttempts = 3;

CTolmGuardConnectManager& Manager() {
  return Tolm::Base::CSingleton<CTolmGuardConnectManager>::Instance();
}

/// A request or notification without parameters, under a fresh guid.
void BeginMessage(proto::CRapidJsonProto& message, const char* method) {
  message.set_v(kPathGuid, Tolm::Base::GuidUtil::CreateGuid());
  message.set_v(kPathMethod, method);
}

void BeginResponse(proto::CRapidJsonProto& response, const std::string& guid) {
  response.set_v("/code", "0");
  response.set_v("/msg", "");
  response.set_v(kPathGuid, guid);
}

/// Element `n` (from 1) of an array, as a path.
std::string Element(const char* array, int n) {
  return array + ("[" + std::to_string(n) + "]");
}

/// To the guard that is there now.
bool SendText(const std::string& text) {
  return Manager().SendMessageToTolmGuard(Manager().GetSessionId(), Tolm::Net::kWebsocketText, text.data(),
                                          static_cast<std::uint32_t>(text.size()), true);
}

bool Send(const proto::CRapidJsonProto& message) {
  return SendText(message.get_str(0));
}

/// Whether the guard has replied.
bool SendAndWait(const proto::CRapidJsonProto& message, std::int32_t timeout_ms) {
  std::string reply;
  Manager().SendAndWaitResponse(reply, message.get_str(0), message.get_v(kPathGuid, ""), timeout_ms);
  return !reply.empty();
}

}  // namespace

CLPCCommunicateWithTolmGuard& CLPCCommunicateWithTolmGuard::GetInstance() {
  return Tolm::Base::CSingleton<CLPCCommunicateWithTolmGuard>::Instance();
}

// ------------------------------------------------------------------------------- The start notices

bool CLPCCommunicateWithTolmGuard::NotifyGuardLPCFrameInit() {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "Notify Guard LPCFrame Init");
  proto::CRapidJsonProto message;
  BeginMessage(message, kGuardNotifyLpcFrameInit);
  if (!SendAndWait(message, kNotifyLpcFrameInitTimeOut)) {
    TOLM_LOG(kLogLevelInfo, kTagError, "Notify Guard LPCFrame Init failed");
    return false;
  }
  TOLM_LOG(kLogLevelInfo, kTagInfo, "Notify Guard LPCFrame Init Successfully");
  return true;
}

void CLPCCommunicateWithTolmGuard::NotifyFrameInitedFinished(const std::string& cmdline) {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "Notify FrameInited Finished");
  const std::uint64_t life = Life();
  // Cleared before frame_inited_finished_ is set: a handshake, which runs where replies arrive, comes here
  // only when that is set, and so never waits for a reply.
  if (need_notify_lpc_frame_init_.exchange(false)) {
    for (int attempt = 0; attempt < kNotifyLpcFrameInitAttempts && !NotifyGuardLPCFrameInit(); ++attempt) {
    }
  }
  for (const auto& entry : CLPCIntegrate::GetInstance().GetPluginData()) {
    const PluginInfo& plugin = entry.second;
    if (plugin.not_verified) continue;
    AddVerifiedPlugin(plugin.plugin_id);
    TOLM_LOG(kLogLevelInfo, kTagTrace, "Plugin [%s] verificate success", plugin.plugin_id.c_str());
  }

  proto::CRapidJsonProto message;
  BeginMessage(message, "NotifyFrameInitState");
  message.set_v("/requestData/initState", 1);
  if (!cmdline.empty()) message.set_v("/requestData/cmdline", cmdline);
  {
    const os::MutexLock lock(mutex_);
    // The frame was stopped while the guard was waited for: this was not announced to the guards of its
    // next life.
    if (life_ != life) return;
    plugin_cmdline_ = cmdline;
    frame_inited_finished_ = true;
    int n = 0;
    for (const std::string& name : verified_plugins_) {
      message.set_v(Element("/requestData/PluginList", ++n), name);
    }
  }
  TOLM_LOG(kLogLevelInfo, kTagPluginFrame, "Start to Load LPC Plugin");
  TOLM_LOG(kLogLevelInfo, kTagTrace, "Start to Load LPC Plugin");
  SendFrameInitState(message.get_str(0));
}

void CLPCCommunicateWithTolmGuard::NotifyFrameInitedFinished() {
  std::string cmdline;
  {
    const os::MutexLock lock(mutex_);
    if (frame_init_state_sent_) return;
    cmdline = plugin_cmdline_;
  }
  NotifyFrameInitedFinished(cmdline);
}

void CLPCCommunicateWithTolmGuard::AddVerifiedPlugin(const std::string& name) {
  const os::MutexLock lock(mutex_);
  if (std::find(verified_plugins_.begin(), verified_plugins_.end(), name) == verified_plugins_.end()) {
    verified_plugins_.push_back(name);
  }
}

// Whether it was sent, the sending, and keeping that it was, are one step: of two threads that come here the
// second one leaves its text to the first, so that one connection is told once, and a connection that
// comes in the middle is told all the same.
void CLPCCommunicateWithTolmGuard::SendFrameInitState(std::string text) {
  auto latest = std::make_shared<const std::string>(std::move(text));
  os::UniqueLock lock(mutex_);
  frame_init_state_.swap(latest);
  if (sending_) {
    send_again_ = true;
    return;
  }
  sending_ = true;
  do {
    send_again_ = false;
    if (frame_init_state_sent_) break;
    // Shared, since nothing may fail while sending_ is set.
    const auto notice = frame_init_state_;
    const std::uint64_t forgotten = forgotten_sends_;
    lock.unlock();
    bool sent = false;
    try {
      sent = SendText(*notice);
    } catch (...) {
      // The notice counts as not sent: the next connection is told.
      TOLM_LOG_CAUGHT("the start notice is not sent");
    }
    lock.lock();
    // A connection that ended meanwhile was perhaps the one that was told.
    if (sent && forgotten == forgotten_sends_) frame_init_state_sent_ = true;
  } while (send_again_);
  sending_ = false;
}

void CLPCCommunicateWithTolmGuard::ForgetFrameInitStateSent() {
  const os::MutexLock lock(mutex_);
  frame_init_state_sent_ = false;
  ++forgotten_sends_;
}

void CLPCCommunicateWithTolmGuard::ForgetAnnouncement() {
  ForgetFrameInitStateSent();
  const os::MutexLock lock(mutex_);
  frame_inited_finished_ = false;
  ++life_;
}

std::uint64_t CLPCCommunicateWithTolmGuard::Life() const {
  const os::MutexLock lock(mutex_);
  return life_;
}

// ------------------------------------------------------------------------------- Other messages

bool CLPCCommunicateWithTolmGuard::SetProcessGuardStateList(const std::map<std::string, bool>& states) {
  proto::CRapidJsonProto message;
  BeginMessage(message, kGuardSetProcessGuardStateList);
  int n = 0;
  for (const auto& [process_name, type] : states) {
    const std::string element = Element("/requestData/guardInfoList", ++n);
    message.set_v(element + "/processName", process_name);
    message.set_v(element + "/type", type ? 1 : 0);
  }
  message.set_v("/requestData/total", n);
  return SendAndWait(message, kSetProcessGuardStateListTimeOut);
}

void CLPCCommunicateWithTolmGuard::ControlGuardProcess(const std::string& process_name, bool start) {
  proto::CRapidJsonProto message;
  BeginMessage(message, start ? "StartProcess" : "StopProcess");
  message.set_v("/requestData/processName", process_name);
  Send(message);
}

void CLPCCommunicateWithTolmGuard::NotifyState() {
  proto::CRapidJsonProto message;
  BeginMessage(message, "NotifyState");
  message.set_v("/requestData/type", 1);
  Send(message);
}

bool CLPCCommunicateWithTolmGuard::NotifyFrameUninit() {
  proto::CRapidJsonProto message;
  BeginMessage(message, "NotifyFrameUninit");
  return Send(message);
}

std::string CLPCCommunicateWithTolmGuard::BuildProcessInitStateListResponse(const std::string& guid) const {
  proto::CRapidJsonProto response;
  BeginResponse(response, guid);
  int n = 0;
  for (const auto& [process_name, inited] : CLPCIntegrate::GetInstance().GetPluginInitStates()) {
    const std::string element = Element("/responseData/initInfoList", ++n);
    response.set_v(element + "/processName", process_name);
    response.set_v(element + "/initState", inited ? 1 : 0);
  }
  response.set_v("/responseData/total", n);
  return response.get_str(0);
}

std::string CLPCCommunicateWithTolmGuard::BuildMainProcessPathResponse(const std::string& guid) const {
  proto::CRapidJsonProto response;
  BeginResponse(response, guid);
  response.set_v("/responseData/mainProcessPath", CLPCIntegrate::GetInstance().GetFrameFullPath());
  return response.get_str(0);
}

void CLPCCommunicateWithTolmGuard::DealNotifyProcessState(const std::string& raw) {
  std::string process_id;
  {
    proto::CRapidJsonProto message;
    if (!ReadMessage(message, raw)) return;
    if (message.get_int_v("/requestData/state", -1) != 0) return;
    process_id = message.get_v("/requestData/processId", "");
  }
  CLPCIntegrate::GetInstance().SetPluginInitState(false, process_id);
}

}  // namespace TolmLPCFrame
