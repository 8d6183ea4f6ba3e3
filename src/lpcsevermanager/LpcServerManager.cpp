#include "lpcsevermanager/LpcServerManager.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "InitLogical.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/TaskThread.h"
#include "TolmLPCServer/LpcServer.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/DataConvert.h"
#include "common/UrlQuery.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCIntegrate.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelTrace;

namespace {

/// Callbacks of the host that the calling thread is in.
thread_local int t_callbacks = 0;

class InCallback {
 public:
  InCallback() { ++t_callbacks; }
  ~InCallback() { --t_callbacks; }
  InCallback(const InCallback&) = delete;
  InCallback& operator=(const InCallback&) = delete;
};

CLpcServerManager& Manager() {
  return Tolm::Base::CSingleton<CLpcServerManager>::Instance();
}

std::string_view ParamOrEmpty(const LpcParams& params, const char* key) {
  const auto found = params.find(key);
  return found != params.end() ? std::string_view(found->second) : std::string_view();
}

/// Nothing must follow in the inbound callback.
void PostAsLastAct(std::unique_ptr<Tolm::Base::CTask> task) {
  const Tolm::Base::CTaskThread::CLastAct last_act;
  Tolm::Base::CSingleton<CMessageLoopForNetCallBack>::Instance().PostTask(task.release());
}

}  // namespace

bool CLpcServerManager::LpcInit(const std::string& lpc_server_name) {
  if (!lpcserver::Init()) {
    TOLM_LOG(kLogLevelError, kTagError, "lpcserver::Init failed,errorcode=%d", lpcserver::GetLPCLastError());
    return false;
  }
  if (!LpcStartListen(lpc_server_name)) {
    TOLM_LOG(kLogLevelError, kTagError, "LpcStartListen failed,lpc_server_name=%s", lpc_server_name.c_str());
    return false;
  }
  return true;
}

bool CLpcServerManager::LpcStartListen(const std::string& lpc_server_name) {
  if (!lpcserver::SetInvokeCallBack(LPCServerCallback, this)) {
    TOLM_LOG(kLogLevelError, kTagError,
             "[CDrexNetWorkManager::StartLPCServer] SetInvokeCallBack failed, error code = %d",
             lpcserver::GetLPCLastError());
    return false;
  }
  if (!lpcserver::StartListen(lpc_server_name)) {
    TOLM_LOG(kLogLevelError, kTagError,
             "[CDrexNetWorkManager::StartLPCServer] StartListen failed, error code = %d",
             lpcserver::GetLPCLastError());
    return false;
  }
  return true;
}

bool CLpcServerManager::LpcUnint() {
  SetCallBack(nullptr, nullptr);
  if (!LpcStopListen()) {
    TOLM_LOG(kLogLevelError, kTagError, "LpcStopListen failed");
    return false;
  }
  if (!lpcserver::Uninit()) {
    TOLM_LOG(kLogLevelError, kTagError, "lpcserver::Uninit failed,errorcode=%d",
             lpcserver::GetLPCLastError());
    return false;
  }
  return true;
}

bool CLpcServerManager::LpcStopListen() {
  lpcserver::SetInvokeCallBack(nullptr, this);
  if (!lpcserver::StopListen()) {
    TOLM_LOG(kLogLevelError, kTagError, "lpcserver::StopListen() failed,errorcode=%d",
             lpcserver::GetLPCLastError());
    return false;
  }
  return true;
}

void CLpcServerManager::SetCallBack(LpcMsgCallBack callback, void* user) {
  const os::MutexLock lock(callback_mutex_);
  callback_ = callback;
  callback_user_ = user;
}

bool CLpcServerManager::CallLpcCallBack(const FrameCallBackData& fcd) {
  LpcMsgCallBack callback = nullptr;
  void* user = nullptr;
  {
    const os::MutexLock lock(callback_mutex_);
    callback = callback_;
    user = callback_user_;
  }
  if (callback == nullptr) {
    TOLM_LOG(kLogLevelError, kTagError,
             "The caller has not called the RegisterLpcMsgCallback interface to set callback_.");
    return false;
  }
  const LPCData& data = fcd.lpc_data;
  TOLM_LOG(kLogLevelTrace, kTagTrace,
           "CallLpcCallBack LpcMsgType[%d], msg_type[%d], dst_id =[%s],dst_type =[%d],src_id =[%s],url =[%s],"
           "method =[%s],push_msg_tag =[%s],body=[%s]",
           fcd.LpcMsgType, data.msg_type, data.dst_id.c_str(), data.dst_type, data.src_id.c_str(),
           MaskSidInUrl(data.url).c_str(), data.method.c_str(), data.push_msg_tag.c_str(), data.body.c_str());
  const InCallback in_callback;
  try {
    return callback(fcd, user);
  } catch (...) {
    TOLM_LOG_CAUGHT("the host's callback threw");
    return false;
  }
}

bool CLpcServerManager::LPCServerCallback(const tag_LPCCallBackData& data, void* /*user*/) try {
  const std::string_view whole_url = ParamOrEmpty(data.params, kKeyUrl);
  std::string url(whole_url.substr(0, whole_url.find('?')));
  TOLM_LOG(kLogLevelInfo, kTagTrace, "[LPCServer Callback], url=[%s], msg_id[%lu], src_id[%s]",
           MaskSidInUrl(url).c_str(), static_cast<unsigned long>(data.msg_id), data.src_id.c_str());
  if (!url.empty()) {
    const std::string_view query = whole_url.substr(std::min(url.size() + 1, whole_url.size()));
    std::string mt(QueryParameter(query, kKeyMT));
    PostAsLastAct(std::make_unique<CURLCallBackTask>(std::move(url), std::move(mt), lpcserver::Take(data)));
  } else if (!ParamOrEmpty(data.params, kKeyPushMsgTag).empty()) {
    FrameCallBackData fcd;
    fcd.LpcMsgType = kLpcMsgPush;
    LPCCallBackDataToLPCData(fcd.lpc_data, lpcserver::Take(data));
    Manager().CallLpcCallBack(fcd);
  } else {
    PostAsLastAct(std::make_unique<CMethodCallBackTask>(lpcserver::Take(data)));
  }
  return true;
} catch (...) {
  TOLM_LOG_CAUGHT("an inbound message is lost");
  return true;
}

std::uint64_t CLpcServerManager::SendRequest(const tag_LPCRequestData& request, std::string_view body) {
  return lpcserver::Send(request, body);
}

bool CLpcServerManager::SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request,
                                    std::string_view body, const std::string& url, int time_out) {
  return lpcserver::Send(response, request, body, url, time_out);
}

bool CLpcServerManager::Reply(const tag_LPCReplyData& reply, std::string_view body) {
  return lpcserver::Reply(reply, body);
}

bool CLpcServerManager::Notify(const tag_LPCNotifyData& notify, std::string_view body) {
  return lpcserver::Notify(notify, body);
}

int CLpcServerManager::GetLastError() {
  return lpcserver::GetLPCLastError();
}

bool CLpcServerManager::EndWaitsSoon() {
  return lpcserver::EndWaitsSoon();
}

bool CLpcServerManager::IsInCallback() {
  return t_callbacks > 0;
}

CURLCallBackTask::CURLCallBackTask(std::string url, std::string mt, tag_LPCCallBackData data)
    : url_(std::move(url)), mt_(std::move(mt)), data_(std::move(data)) {}

void CURLCallBackTask::Run() {
  WaitWhileStarting();
  CLPCIntegrate::GetInstance().URLCallBackEIT(url_, mt_, std::move(data_));
}

CMethodCallBackTask::CMethodCallBackTask(tag_LPCCallBackData data)
    : data_(std::move(data)), arrival_(CLPCIntegrate::NextArrival()) {}

void CMethodCallBackTask::Run() {
  WaitWhileStarting();
  CLPCIntegrate::GetInstance().MethodCallBackEIT(std::move(data_), arrival_);
}

}  // namespace TolmLPCFrame
