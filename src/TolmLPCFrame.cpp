#include "TolmLPCFrame.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <limits>
#include <utility>

#include "InitLogical.h"
#include "TolmBase/FileUtil.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/Singleton.h"
#include "TolmBase/StringUtil.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/DataConvert.h"
#include "common/LenientInt.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelTrace;

namespace {

/// Given for a message that has no id of its own.
constexpr std::uint64_t kNoMsgId = std::numeric_limits<std::uint64_t>::max();

/// Not one of the transport's codes.
constexpr int kUnknownError = -1;

struct InitState {
  SharedMutex mutex;
  /// Nothing sets it: a second start is a repetition and not an error.
  bool already_initialised TOLM_GUARDED_BY(mutex) = false;
};

CLpcServerManager& Transport() {
  return Tolm::Base::CSingleton<CLpcServerManager>::Instance();
}

/// The id as "%lu" wants it; on systems with a 32-bit long its lower half.
unsigned long ForLog(std::uint64_t msg_id) {
  return static_cast<unsigned long>(msg_id);
}

}  // namespace

// Every function that can throw is one try block, since no exception may reach the host.

int TolmLPCFrameInit(const std::string& lpc_server_name, const PlatformInfo& info) try {
  auto& state = Tolm::Base::CSingleton<InitState>::Instance();
  const ExclusiveLock lock(state.mutex);
  if (state.already_initialised) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameInit alreadly init");
    return kFrameAlreadyInitialised;
  }
  TOLM_LOG(kLogLevelInfo, kTagInfo,
           "TolmLPCFrameInit Begin lpc_server_name=[%s],frame_full_path=[%s],frame_type[%d],"
           "str_edition_config[%d]",
           lpc_server_name.c_str(), info.frame_full_path.c_str(), info.frame_type,
           LenientInt(info.str_edition_config));
  const std::string utf8_exe_dir = Tolm::Base::StringUtil::Local2UTF8(Tolm::Base::FileUtil::GetCurExeDir());
  Tolm::Base::FileUtil::InitCurExeDirUtf8(utf8_exe_dir);
  if (!InitLogical(lpc_server_name, info)) return kFrameFailed;
  TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameInit End, utf8_exe_dir = %s", utf8_exe_dir.c_str());
  return kFrameOk;
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return kFrameFailed;
}

int TolmLPCFrameUnInit() try {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameUnInit begin");
  if (!UninitLogical()) {
    TOLM_LOG(kLogLevelError, kTagError, "LpcUnint UninitLogical failed");
    return kFrameFailed;
  }
  TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameUnInit End");
  return kFrameOk;
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return kFrameFailed;
}

void RegisterLpcMsgCallback(LpcMsgCallBack callback, void* user) try {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "RegisterLpcMsgCallback yet");
  Transport().SetCallBack(callback, user);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

void RegisterUrl(const std::vector<std::string>& urls) try {
  for (const std::string& url : urls)
    TOLM_LOG(kLogLevelInfo, kTagInfo, "Up RegisterUrl url[%s]", MaskSidInUrl(url).c_str());
  CLPCIntegrate::GetInstance().RegisterUrl(urls);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

bool IsPluginURL(int& time_out, const std::string& url) try {
  return CLPCIntegrate::GetInstance().IsUrlFromPlugin(time_out, url);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return false;
}

void GetHttpHeaders(std::vector<std::string>& out) try {
  CLPCIntegrate::GetInstance().GetHttpHeaders(out);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

bool SyncSend(LPCData& response, const LPCData& request, int time_out) try {
  TOLM_LOG(kLogLevelTrace, kTagTrace,
           "[SyncSend] msg_type[%d],src_id[%s],dst_id[%s],url[%s],method[%s], time_out[%d]", request.msg_type,
           request.src_id.c_str(), request.dst_id.c_str(), MaskSidInUrl(request.url).c_str(),
           request.method.c_str(), time_out);
  tag_LPCRequestData outgoing;
  if (!LPCDataToRequestDataWithoutBody(outgoing, request)) return false;

  const CLPCIntegrate& plugins = CLPCIntegrate::GetInstance();
  if (outgoing.dst_id.empty()) {
    if (!plugins.FindDstIdByUrl(outgoing.dst_id, request.url)) {
      TOLM_LOG(kLogLevelError, kTagError, "FindDstIdByUrl failed, url=[%s]",
               MaskSidInUrl(request.url).c_str());
      return false;
    }
    TOLM_LOG(kLogLevelTrace, kTagTrace, "[SyncSend] Find DstIdByUrl success, dst_id[%s], url=[%s]",
             outgoing.dst_id.c_str(), MaskSidInUrl(request.url).c_str());
  }
  if (!plugins.GetPluginInitState(outgoing.dst_id)) {
    TOLM_LOG(kLogLevelError, kTagError, "GetPluginInitState failed, dst_id[%s] has not inited",
             outgoing.dst_id.c_str());
    return false;
  }

  tag_LPCResponseData received;
  if (!Transport().SendAndWait(received, outgoing, request.body, request.url, time_out)) return false;
  ResponseDataToLPCData(response, std::move(received));
  return true;
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return false;
}

bool AsyncSend(std::uint64_t& msg_id, const LPCData& data) try {
  TOLM_LOG(kLogLevelTrace, kTagTrace,
           "AsyncSend msg_type=[%d],src_id=[%s],dst_id=[%s],url=[%s],method=[%s], msg_id=[%lu]",
           data.msg_type, data.src_id.c_str(), data.dst_id.c_str(), MaskSidInUrl(data.url).c_str(),
           data.method.c_str(), ForLog(data.msg_id));
  const CLPCIntegrate& plugins = CLPCIntegrate::GetInstance();
  switch (data.msg_type) {
    case kMsgTypeRequest: {
      tag_LPCRequestData request;
      if (!LPCDataToRequestDataWithoutBody(request, data)) {
        TOLM_LOG(kLogLevelError, kTagError, "LPCDataToRequestData failed.msg_id = %lu.", ForLog(data.msg_id));
        return false;
      }
      if (request.dst_id.empty() && !plugins.FindDstIdByUrl(request.dst_id, data.url)) {
        TOLM_LOG(kLogLevelError, kTagError, "dst_id is empty, url =[%s], msg_id = %lu.",
                 MaskSidInUrl(data.url).c_str(), ForLog(data.msg_id));
        return false;
      }
      msg_id = Transport().SendRequest(request, data.body);
      return true;
    }
    case kMsgTypeReply: {
      tag_LPCReplyData reply;
      if (!LPCDataToReplyDataWithoutBody(reply, data)) {
        TOLM_LOG(kLogLevelError, kTagError, "AsyncSend LPCDataToReplyData failed, dst_id[%s], msg_id[%lu]",
                 data.dst_id.c_str(), ForLog(data.msg_id));
        return false;
      }
      TOLM_LOG(kLogLevelTrace, kTagTrace, "[Reply] Start, dst_id[%s], msg_id[%lu]", data.dst_id.c_str(),
               ForLog(data.msg_id));
      msg_id = kNoMsgId;
      return Transport().Reply(reply, data.body);
    }
    case kMsgTypeNotify: {
      tag_LPCNotifyData notify;
      if (!LPCDataToNotifyDataWithoutBody(notify, data)) {
        TOLM_LOG(kLogLevelError, kTagError, "LPCDataToNotifyData failed.msg_id = %lu.", ForLog(data.msg_id));
        return false;
      }
      // A notification that nobody can take is not worth a log line; a request is.
      if (notify.dst_id.empty() && !plugins.FindDstIdByUrl(notify.dst_id, data.url)) return false;
      msg_id = kNoMsgId;
      return Transport().Notify(notify, data.body);
    }
    default:
      msg_id = kNoMsgId;
      return false;
  }
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return false;
}

void TolmLPCFrameNotifyStartPlugins(const std::string& plugin_cmdline) try {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameNotifyStartPlugins plugin_cmdline[%s]",
           plugin_cmdline.c_str());
  CLPCIntegrate::GetInstance().NotifyStartPlugins(plugin_cmdline);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

void TolmLPCFrameStartPlugin(const std::string& plugin_id) try {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmLPCFrameStartPlugin plugin_id[%s]", plugin_id.c_str());
  CLPCIntegrate::GetInstance().StartPlugin(plugin_id);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

int GetLPCLastError() try { return Transport().GetLastError(); } catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return kUnknownError;
}

void SubscribeNotify(LPCData& /*data*/) {}

}  // namespace TolmLPCFrame
