// Where a message with a url goes: to the registration, to another plugin, or to the host.

#include <utility>

#include "InitLogical.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/TaskThread.h"
#include "TolmLPCServer/LpcServer.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/DataConvert.h"
#include "common/LenientInt.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelTrace;

namespace {

constexpr std::int32_t kToHost = 0;
constexpr std::int32_t kToPlugin = 1;

/// How long the sender of a request wants to wait. The keys are written both ways by plugins.
int ForwardTimeOut(const LpcParams& params) {
  for (const char* const key : {"timeout", "Timeout"}) {
    const auto found = params.find(key);
    if (found != params.end() && !found->second.empty()) return LenientInt(found->second);
  }
  return kDefaultTimeOut;
}

}  // namespace

void CLPCIntegrate::URLCallBackEIT(const std::string& ori_url, const std::string& method,
                                   tag_LPCCallBackData&& request) {
  std::string cov_url;
  NormalizeUrlPattern(cov_url, CutQuery(ori_url));
  TOLM_LOG(kLogLevelTrace, kTagTrace,
           "url call src_id=[%s], dst_id=[%s], ori_url[%s], cov_urr[%s], lpc_body =[%s], mt_method[%s]",
           request.src_id.c_str(), request.dst_id.c_str(), MaskSidInUrl(ori_url).c_str(),
           MaskSidInUrl(cov_url).c_str(), request.body.c_str(), MaskSidInUrl(method).c_str());
  if (cov_url == register_url_) {
    PluginURLRegister(request);
    return;
  }
  std::int32_t time_out = 0;
  const Tolm::Base::CTaskThread::CLastAct last_act;
  if (IsUrlFromPlugin(time_out, cov_url)) {
    Tolm::Base::CSingleton<CMessageLoopForPlugins>::Instance().PostTask(
        new CURLTask(kToPlugin, std::move(cov_url), std::move(request)));
  } else {
    Tolm::Base::CSingleton<CMessageLoopForMainFrameWork>::Instance().PostTask(
        new CURLTask(kToHost, std::move(cov_url), std::move(request)));
  }
}

void CLPCIntegrate::URLTaskEIT(std::int32_t kind, const std::string& url,
                               tag_LPCCallBackData&& request) const {
  switch (kind) {
    case kToHost: {
      FrameCallBackData message;
      message.LpcMsgType = kLpcMsgLpcData;
      LPCCallBackDataToLPCData(message.lpc_data, std::move(request));
      Tolm::Base::CSingleton<CLpcServerManager>::Instance().CallLpcCallBack(message);
      break;
    }
    case kToPlugin:
      PluginURLAddressForward(url, std::move(request));
      break;
    default:
      TOLM_LOG(kLogLevelError, kTagError, "URL is wrong");
  }
}

void CLPCIntegrate::PluginURLAddressForward(const std::string& url, tag_LPCCallBackData&& request) const {
  std::string dst_id;
  if (!FindDstIdByUrl(dst_id, url)) {
    TOLM_LOG(kLogLevelError, kTagError, "PluginURLAddressForward. FindDstIdByUrl failed[%s]",
             MaskSidInUrl(url).c_str());
    return;
  }
  TOLM_LOG(kLogLevelTrace, kTagTrace,
           "PluginURLAddressForward. plugin to plugin [url=%s],[dstid=%s],[srcid=%s]",
           MaskSidInUrl(url).c_str(), dst_id.c_str(), request.src_id.c_str());
  if (dst_id.empty() || dst_id == kMainCompnentID) {
    TOLM_LOG(kLogLevelError, kTagError, "the id for the url is empty or kMainCompnentID.");
    return;
  }

  if (!request.need_reply) {
    tag_LPCNotifyData notify{std::move(dst_id), std::move(request.params), std::move(request.body)};
    if (!lpcserver::Notify(std::move(notify))) {
      TOLM_LOG(kLogLevelError, kTagError, "Notify faild, the error code is %d.",
               lpcserver::GetLPCLastError());
    }
    return;
  }

  const int time_out = ForwardTimeOut(request.params);
  tag_LPCRequestData forwarded{std::move(dst_id), std::move(request.params), std::move(request.body)};
  tag_LPCResponseData response;
  if (!lpcserver::Send(response, std::move(forwarded), std::string(), time_out)) {
    // The requesting plugin is told nothing; its own time-out ends its wait.
    TOLM_LOG(kLogLevelError, kTagError, "Send faild, the error code is %d.", lpcserver::GetLPCLastError());
    return;
  }
  tag_LPCReplyData reply{request.msg_id, std::move(request.src_id), std::move(response.params),
                         std::move(response.body)};
  if (!lpcserver::Reply(std::move(reply))) {
    TOLM_LOG(kLogLevelError, kTagError, "Reply faild, the error code is %d.", lpcserver::GetLPCLastError());
  }
}

CURLTask::CURLTask(std::int32_t kind, std::string url, tag_LPCCallBackData&& request)
    : kind_(kind), url_(std::move(url)), request_(std::move(request)) {}

void CURLTask::Run() {
  CLPCIntegrate::GetInstance().URLTaskEIT(kind_, url_, std::move(request_));
}

}  // namespace TolmLPCFrame
