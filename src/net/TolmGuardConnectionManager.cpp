#include "net/TolmGuardConnectionManager.h"

#include <memory>
#include <utility>

#include "InitLogical.h"
#include "TolmBase/LogLine.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/ConfigXmlReader.h"
#include "net/LocalPortFinder.h"

namespace TolmLPCFrame {

using Tolm::Base::CSingleton;
using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Net::CHttpServer;
using Tolm::Net::WebsocketMsgtype;
using Tolm::Net::WebsocketRecv;

namespace {

constexpr char kAddress[] = "127.0.0.1";

/// False when it is lost, for want of memory or since the frame stops.
bool PostToPool(std::unique_ptr<CTolmGuardRawMsgTask> task) {
  return CSingleton<CMessageLoopForWebSocket>::Instance().PostTask(task.release());
}

}  // namespace

// ------------------------------------------------------------------------------- Start and stop

bool CTolmGuardConnectManager::InitManager(std::int32_t frame_type) {
  CLocalXmlReader reader;
  LocalXmlConfig config;
  const auto write_free_port = [&] {
    config.port = CLocalPortFinder::GetInstance().GetFreePort();
    tolmguard_port_ = static_cast<std::uint16_t>(config.port);
    return reader.SetConfigXml(config, frame_type);
  };
  if (reader.ReadLocalXml(frame_type)) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "ReadLocalXml ok");
    config = reader.Config();
    tolmguard_port_ = static_cast<std::uint16_t>(config.port);
    if (CLocalPortFinder::GetInstance().IsPortInUse(tolmguard_port_)) {
      TOLM_LOG(kLogLevelInfo, kTagInfo, "local xml port conflict");
      if (!write_free_port()) {
        TOLM_LOG(kLogLevelError, kTagError, "SetConfigXml failed");
        return false;
      }
    } else {
      TOLM_LOG(kLogLevelInfo, kTagInfo, "local xml port ok");
    }
  } else {
    if (!write_free_port()) {
      TOLM_LOG(kLogLevelError, kTagError, "SetConfigXml failed");
      return false;
    }
    TOLM_LOG(kLogLevelInfo, kTagInfo, "GetFreePort a new port [%d]", tolmguard_port_.load());
  }
  const std::uint16_t port = tolmguard_port_;
  if (port == 0) {
    TOLM_LOG(kLogLevelError, kTagError, "InitManager failed tolmguard_port_ = 0");
    return false;
  }

  std::int32_t handle = server_handle_;
  // Plain HTTP has no meaning here.
  int ret = CHttpServer::StartHttpServer(handle, kAddress, port,
                                         [](std::int32_t, const Tolm::Net::HttpServerRecv&) {});
  server_handle_ = handle;
  if (ret != 0 || handle == -1) {
    TOLM_LOG(kLogLevelError, kTagError, "[HTTPS START] Start Websocket Server failed, Port = %d, ret = %d",
             port, ret);
    return false;
  }
  ret = CHttpServer::SetWebSocketServerCallBack(
      handle, [this](std::int32_t socket, const WebsocketRecv& recv) noexcept {
        WebsocketTolmGuardServerMsgCallback(socket, recv);
      });
  if (ret != 0) {
    // The server stays, until UninitManager.
    TOLM_LOG(kLogLevelError, kTagError,
             "[HTTPS START] set Websocket Server callback failed, Port = %d, ret = %d", port, ret);
    return false;
  }
  TOLM_LOG(kLogLevelInfo, kTagInfo, " Websocket Server Start successd port = %d.", port);
  return true;
}

void CTolmGuardConnectManager::UninitManager() {
  tolmguard_port_ = 0;
  const int ret = CHttpServer::StopServer(server_handle_);
  if (ret != 0) TOLM_LOG(kLogLevelError, kTagError, "[WebsocketServerStop] failed, ret = %d", ret);
  CLPCCommunicateWithTolmGuard::GetInstance().ForgetAnnouncement();
}

// ------------------------------------------------------------------------------- On TolmNet's thread

void CTolmGuardConnectManager::WebsocketTolmGuardServerMsgCallback(std::int32_t handle,
                                                                   const WebsocketRecv& recv) noexcept {
  try {
    if (handle < 0) {
      TOLM_LOG(kLogLevelError, kTagError, "handle error, handle = %d, code = %d, len = %d, type = %d", handle,
               recv.status, static_cast<int>(recv.len), recv.type);
      return;
    }
    if (recv.type == Tolm::Net::kWebsocketContinuation || recv.type == Tolm::Net::kWebsocketBinary ||
        !recv.fin) {
      TOLM_LOG(kLogLevelError, kTagError, "msg_type error, handle = %d, status = %d, len = %d, type = %d",
               handle, recv.status, static_cast<int>(recv.len), recv.type);
      return;
    }
    if (recv.type != Tolm::Net::kWebsocketText) {
      if (!PostEvent(handle, recv) && !IsStopped()) MakeUpForLostEvent(handle, recv.type);
      TOLM_LOG(kLogLevelInfo, kTagInfo,
               "websocket commd, handle = %d, msg_type = %d, status_code = %d, is_fin = %d, data_len = %d",
               handle, recv.type, recv.status, static_cast<int>(recv.fin), static_cast<int>(recv.len));
      return;
    }
    if (recv.len > kMaxGuardText || recv.data == nullptr || recv.len == 0) {
      TOLM_LOG(kLogLevelError, kTagError, "data error, handle = %d, len = %d, status = %d, fin = %d", handle,
               static_cast<int>(recv.len), recv.status, static_cast<int>(recv.fin));
      return;
    }
    PostToPool(std::make_unique<CTolmGuardRawMsgTask>(handle, recv.type, recv.status,
                                                      std::string(recv.data, recv.len)));
    TOLM_LOG(kLogLevelInfo, kTagInfo, "receive data, handle = %d, status = %d, fin = %d, len = %d, data = %s",
             handle, recv.status, static_cast<int>(recv.fin), static_cast<int>(recv.len),
             std::string(recv.data, recv.len).c_str());
  } catch (...) {
    TOLM_LOG_CAUGHT("an event of a guard's connection is lost");
    MakeUpForLostEvent(handle, recv.type);
  }
}

// Nobody would tell a guard that has come what to start: it comes again. Nor would anybody tell the one that
// comes after a guard that has gone.
void CTolmGuardConnectManager::MakeUpForLostEvent(std::int32_t handle, std::int32_t type) noexcept {
  if (type == Tolm::Net::kWebsocketHandshake) CHttpServer::CloseWebSocket(handle);
  if (type == Tolm::Net::kWebsocketClose) {
    CLPCCommunicateWithTolmGuard::GetInstance().ForgetFrameInitStateSent();
  }
}

bool CTolmGuardConnectManager::PostEvent(std::int32_t handle, const WebsocketRecv& recv) {
  auto this_event = std::make_shared<Gate>(false);
  const os::MutexLock lock(event_order_mutex_);
  auto task =
      std::make_unique<CTolmGuardRawMsgTask>(handle, recv.type, recv.status, last_event_handled_, this_event);
  last_event_handled_ = std::move(this_event);
  return PostToPool(std::move(task));
}

// ------------------------------------------------------------------------------- On the pool

CTolmGuardRawMsgTask::CTolmGuardRawMsgTask(std::int32_t session_id, std::int32_t msg_type,
                                           std::int32_t error_code, std::string data)
    : session_id_(session_id), msg_type_(msg_type), error_code_(error_code), data_(std::move(data)) {}

CTolmGuardRawMsgTask::CTolmGuardRawMsgTask(std::int32_t session_id, std::int32_t msg_type,
                                           std::int32_t error_code, EventHandled event_before,
                                           EventHandled this_event)
    : session_id_(session_id),
      msg_type_(msg_type),
      error_code_(error_code),
      event_before_(std::move(event_before)),
      this_event_(std::move(this_event)) {}

CTolmGuardRawMsgTask::~CTolmGuardRawMsgTask() {
  if (this_event_ != nullptr) this_event_->Open();
}

void CTolmGuardRawMsgTask::Run() {
  WaitWhileStarting();
  if (event_before_ != nullptr) event_before_->Pass();
  try {
    CSingleton<CTolmGuardConnectManager>::Instance().TolmGuardOnRawMsgEIT(session_id_, msg_type_, error_code_,
                                                                          data_);
  } catch (...) {
    // It was not told what to start, and is when it comes again.
    if (msg_type_ == Tolm::Net::kWebsocketHandshake) CHttpServer::CloseWebSocket(session_id_);
    throw;
  }
}

void CTolmGuardConnectManager::TolmGuardOnRawMsgEIT(std::int32_t session_id, std::int32_t msg_type,
                                                    std::int32_t error_code, const std::string& data) {
  auto& communicator = CLPCCommunicateWithTolmGuard::GetInstance();
  TOLM_LOG(kLogLevelInfo, kTagInfo, "recv msg_type:%d, socket id :%d, error_code = %d", msg_type, session_id,
           error_code);
  switch (msg_type) {
    case Tolm::Net::kWebsocketNoType:
      TOLM_LOG(kLogLevelError, kTagError, "recv no_type, socket id : %d", session_id);
      break;

    case Tolm::Net::kWebsocketText:
      DealMessage(session_id, data);
      break;

    case Tolm::Net::kWebsocketClose: {
      TOLM_LOG(kLogLevelInfo, kTagTrace, "WebsocketServerClose");
      communicator.ForgetFrameInitStateSent();
      const int ret = CHttpServer::CloseWebSocket(session_id);
      if (ret != 0) TOLM_LOG(kLogLevelError, kTagError, "WebsocketServerClose, ret = %d", ret);
      break;
    }

    case Tolm::Net::kWebsocketHandshake: {
      session_id_ = session_id;  // also when it failed
      if (error_code != 0) {
        TOLM_LOG(kLogLevelError, kTagError,
                 "handshake_reg_msg error, msg_type:%d, socket id :%d, error_code = %d", msg_type, session_id,
                 error_code);
        break;
      }
      std::string ip;
      CHttpServer::GetWebSocketClientIp(ip, session_id);
      TOLM_LOG(kLogLevelInfo, kTagInfo, "Get client info:socket id :%d, ip =%s", session_id, ip.c_str());
      if (!communicator.IsFrameInitedFinished()) break;
      TOLM_LOG(kLogLevelInfo, kTagTrace, "NotifyFrameInitedFinished");
      communicator.NotifyFrameInitedFinished();
      break;
    }

    default:
      TOLM_LOG(kLogLevelError, kTagError, "msg type error, type is %d", msg_type);
  }
}

// ------------------------------------------------------------------------------- Sending

bool CTolmGuardConnectManager::SendMessageToTolmGuard(std::int32_t session_id, WebsocketMsgtype msg_type,
                                                      const char* data, std::uint32_t len, bool fin) {
  if (len == 0) {
    TOLM_LOG(kLogLevelError, kTagWebSocket, "SendMessage  data_len = 0");
    return false;
  }
  // Before the send: what was sent must not count as not sent for want of memory.
  const std::string text(data, len);
  const int ret = CHttpServer::SendWebSocketMsg(session_id, msg_type, data, len, fin);
  if (ret != 0) {
    TOLM_LOG(kLogLevelError, kTagError, "WebsocketServerSend fail error code = %d,data=%s,session_id=%d", ret,
             text.c_str(), session_id);
    return false;
  }
  TOLM_LOG(kLogLevelInfo, kTagInfo, "WebsocketServerSend success send_data = %s", text.c_str());
  return true;
}

}  // namespace TolmLPCFrame
