// What plugins report about themselves: their initialisation and their connections.

#include <algorithm>
#include <atomic>
#include <utility>

#include "KRT/KRT.h"
#include "TolmBase/LogLine.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/Constants.h"
#include "common/DataConvert.h"
#include "common/MessageJson.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;

namespace {

void TellHost(std::int32_t event_type, LPCData&& data) {
  FrameCallBackData event;
  event.LpcMsgType = event_type;
  event.lpc_data = std::move(data);
  Tolm::Base::CSingleton<CLpcServerManager>::Instance().CallLpcCallBack(event);
}

LPCData WithSource(const LPCData& data, const std::string& id) {
  LPCData copy = data;
  copy.src_id = id;
  return copy;
}

}  // namespace

std::uint64_t CLPCIntegrate::NextArrival() {
  static std::atomic<std::uint64_t> arrivals{0};
  return ++arrivals;
}

void CLPCIntegrate::MethodCallBackEIT(tag_LPCCallBackData&& request, std::uint64_t arrival) {
  LPCData data;
  LPCCallBackDataToLPCData(data, std::move(request));
  proto::CRapidJsonProto body;
  ReadMessage(body, data.body);
  const std::string method = body.get_v("/method", "");
  const std::string id = data.src_id;

  if (method == method_connection_status_changed_) {
    PluginStatusChanged(data, arrival);
  } else if (method == method_server_listen_failed_) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "[/method:serverListenFailed], plugin_id[%s]", id.c_str());
  } else if (method == method_init_finish_) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "[/method:InitFinish], plugin_id[%s]", id.c_str());
    const InitProgress progress = MarkInited(id);
    if (progress.listed) TOLM_LOG(kLogLevelInfo, kTagInfo, "plugin_id[%s], is InitFinish", id.c_str());
    if (progress.all_finished) {
      TOLM_LOG(kLogLevelInfo, kTagPluginFrame, "All LPC plugins have inited finish");
    }
    const int cost_time = body.get_int_v("/Data/InitCostTime", -1);
    TOLM_LOG(kLogLevelInfo, kTagPluginFrame, "Plugin Init end. [%s] consume_time[%d]", id.c_str(), cost_time);
    TOLM_LOG(kLogLevelInfo, kTagServiceManage, "[%s] Init OK. Take up Time is [%d ms].\n", id.c_str(),
             cost_time);
    TellHost(kLpcMsgPluginInited, std::move(data));
    CLPCCommunicateWithTolmGuard::GetInstance().NotifyState();
  } else if (method == method_uninit_finish_) {
    const long long first_tick = KRT_GetTimeTick64();
    TOLM_LOG(kLogLevelInfo, kTagPluginFrame,
             "[/method:Uninit], uninit suceessfully, plugin_id[%s], time [%lld]", id.c_str(), first_tick);
    const long long second_tick = KRT_GetTimeTick64();
    TOLM_LOG(kLogLevelInfo, kTagInfo, "[/method:Uninit], uninit suceessfully, plugin_id[%s], time [%lld]",
             id.c_str(), second_tick);
    ForgetUniniting(id);
  } else {
    TOLM_LOG(kLogLevelError, kTagError, "method is invalid");
  }
}

void CLPCIntegrate::PluginStatusChanged(const LPCData& data, std::uint64_t arrival) {
  proto::CRapidJsonProto body;
  ReadMessage(body, data.body);
  const std::string status = body.get_v("/status", "");
  const std::string id = body.get_v("/componentID", "");

  if (status == "connected") {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "[/method:connectionStatusChanged], plugin_id[%s], [Connected]",
             id.c_str());
    const std::optional<std::string> plugin_id = SetConnectState(id, 1, arrival);
    if (plugin_id)
      TOLM_LOG(kLogLevelInfo, kTagInfo, "PluginStatusChanged plugin_id[%s] is connect", id.c_str());
    TellHost(kLpcMsgPluginConnected, WithSource(data, id));
    if (plugin_id.value_or("").empty()) {
      TOLM_LOG(kLogLevelError, kTagError, "has no this plugin id:%s", id.c_str());
    }
  } else if (status == "disconnected") {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "[/method:connectionStatusChanged], plugin_id[%s], [Disconnected]",
             id.c_str());
    if (SetConnectState(id, 0, arrival)) {
      TOLM_LOG(kLogLevelInfo, kTagInfo, "PluginStatusChanged plugin_id[%s] is Disconnected", id.c_str());
    }
    TellHost(kLpcMsgPluginDisconnected, WithSource(data, id));
  }
}

CLPCIntegrate::InitProgress CLPCIntegrate::MarkInited(const std::string& id) {
  return init_states_.Write([&](InitStates& states) {
    InitProgress progress;
    auto& inited = states.vec_inited_plugin_;
    auto& flags = states.map_plugin_init_status_;
    if (const auto flag = flags.find(id); flag != flags.end()) {
      progress.listed = true;
      if (std::find(inited.begin(), inited.end(), id) == inited.end()) inited.push_back(id);
      flag->second = true;
    }
    progress.all_finished = inited.size() == flags.size();
    return progress;
  });
}

std::optional<std::string> CLPCIntegrate::SetConnectState(const std::string& component_id, std::int32_t state,
                                                          std::uint64_t arrival) {
  return map_plugin_data_.Write([&](auto& plugins) -> std::optional<std::string> {
    const auto plugin = plugins.find(component_id);
    if (plugin == plugins.end()) return std::nullopt;
    ListedPlugin& listed = plugin->second;
    if (arrival > listed.connection_word) {
      listed.connect_state = state;
      listed.connection_word = arrival;
    }
    return listed.plugin_id;
  });
}

}  // namespace TolmLPCFrame
