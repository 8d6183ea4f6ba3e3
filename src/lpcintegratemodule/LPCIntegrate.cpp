#include "lpcintegratemodule/LPCIntegrate.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/StringUtil.h"
#include "common/Constants.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelTrace;

namespace {

constexpr std::int32_t kFrameTypeUnknown = 2;

template <typename Map>
auto FindCopy(const Map& map, const std::string& key) -> std::optional<typename Map::mapped_type> {
  const auto found = map.find(key);
  if (found == map.end()) return std::nullopt;
  return found->second;
}

}  // namespace

CLPCIntegrate& CLPCIntegrate::GetInstance() {
  return Tolm::Base::CSingleton<CLPCIntegrate>::Instance();
}

CLPCIntegrate::CLPCIntegrate()
    : register_url_("/QOMI/Vantrel/Integration/V1/Register"),
      messages_url_("/QOMI/Vantrel/Integration/V1/Messages"),
      method_connection_status_changed_(kMethodConnectionStatusChanged),
      method_server_listen_failed_(kMethodServerListenFailed),
      method_init_finish_("InitFinish"),
      method_uninit_finish_("UninitFinish") {
  frame_type_.Write([](std::int32_t& type) { type = kFrameTypeUnknown; });
}

void CLPCIntegrate::Init(const PlatformInfo& info) {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "*****[%s]", info.frame_full_path.c_str());
  frame_full_path_.Write([&](std::string& path) { path = info.frame_full_path; });
  SetPluginData(info);
  frame_type_.Write([&](std::int32_t& type) { type = info.frame_type; });
  if (info.frame_type != kFrameTypeWithAgent) return;

  const std::string path = Tolm::Base::StringUtil::StringReplace(info.frame_full_path, "/", "\\");
  const std::size_t separator = path.rfind('\\');
  const std::string directory =
      separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
  CLPCCommunicateWithTolmGuard::GetInstance().InitTolmAgent(
      path, directory + "TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe", "Client");
}

void CLPCIntegrate::SetPluginData(const PlatformInfo& info) {
  TOLM_LOG(kLogLevelTrace, kTagTrace, "Start SetPluginData");
  std::map<std::string, ListedPlugin> plugins;
  for (const auto& [key, plugin] : info.plugin_map) plugins.try_emplace(key, ListedPlugin{plugin});
  map_plugin_data_.Write([&](auto& data) { data.swap(plugins); });
  for (const auto& [key, plugin] : info.plugin_map) {
    TOLM_LOG(kLogLevelTrace, kTagTrace, "Set map_plugin_data_, key[%s], plugin_id[%s]", key.c_str(),
             plugin.plugin_id.c_str());
  }
  for (const auto& [key, plugin] : info.plugin_map) {
    TOLM_LOG(kLogLevelTrace, kTagTrace, "Set map_plugin_init_status_, key[%s], plugin_id[%s]", key.c_str(),
             plugin.plugin_id.c_str());
  }
  init_states_.Write([&](InitStates& states) {
    for (const auto& entry : info.plugin_map) states.map_plugin_init_status_.try_emplace(entry.first, false);
  });
}

bool CLPCIntegrate::GetPluginInfoByID(PluginInfo& out, const std::string& id) const {
  auto found = map_plugin_data_.Read([&](const auto& data) { return FindCopy(data, id); });
  if (!found) {
    TOLM_LOG(kLogLevelError, kTagError, "find plugin_data failed, [%s]", id.c_str());
    return false;
  }
  out = std::move(*found);
  return true;
}

std::map<std::string, PluginInfo> CLPCIntegrate::GetPluginData() const {
  return map_plugin_data_.Read(
      [](const auto& data) { return std::map<std::string, PluginInfo>(data.begin(), data.end()); });
}

void CLPCIntegrate::SetPluginInitState(bool state, const std::string& id) {
  enum class Change { kNotListed, kNone, kMade };
  const Change change = init_states_.Write([&](InitStates& states) {
    const auto found = states.map_plugin_init_status_.find(id);
    if (found == states.map_plugin_init_status_.end()) return Change::kNotListed;
    if (found->second == state) return Change::kNone;
    found->second = state;
    return Change::kMade;
  });
  if (change == Change::kNone) return;
  if (change == Change::kMade) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "plugin_id[%s], is Set Plugin initState [%d]", id.c_str(),
             static_cast<int>(state));
  }
  FrameCallBackData event;
  event.LpcMsgType = state ? kLpcMsgPluginInited : kLpcMsgPluginUninited;
  event.lpc_data.src_id = id;
  TOLM_LOG(kLogLevelInfo, kTagInfo, "SetPluginInitState, init_state[%d]", event.LpcMsgType);
  Tolm::Base::CSingleton<CLpcServerManager>::Instance().CallLpcCallBack(event);
}

bool CLPCIntegrate::GetPluginInitState(const std::string& id) const {
  return init_states_
      .Read([&](const InitStates& states) { return FindCopy(states.map_plugin_init_status_, id); })
      .value_or(false);
}

std::map<std::string, bool> CLPCIntegrate::GetPluginInitStates() const {
  return init_states_.Read([](const InitStates& states) { return states.map_plugin_init_status_; });
}

bool CLPCIntegrate::IsUrlFromPlugin(std::int32_t& time_out, const std::string& url) const {
  const UrlLookupKey pattern(url);
  const HashedText key(pattern.text());
  if (!map_url_plugin_id_.Read([&](const auto& ids) { return ids.Find(key) != nullptr; })) return false;

  const bool stored = map_url_timeout_.Read([&](const auto& time_outs) {
    const std::int32_t* const found = time_outs.Find(key);
    // Without one its registration is under way on another thread, between the two tables.
    time_out = found != nullptr ? *found : kDefaultTimeOut;
    return found != nullptr;
  });
  if (stored) {
    TOLM_LOG(kLogLevelTrace, kTagTrace, "IsUrlFromPlugin Find URL, time_out=[%d]", time_out);
  } else {
    TOLM_LOG(kLogLevelTrace, kTagTrace, "map_url_timeout_ DO NOT FIND URL");
  }
  return true;
}

bool CLPCIntegrate::FindDstIdByUrl(std::string& id, const std::string& url) const {
  const UrlLookupKey pattern(url);
  const HashedText key(pattern.text());
  return map_url_plugin_id_.Read([&](const auto& ids) {
    const std::string* const found = ids.Find(key);
    if (found != nullptr) id = *found;
    return found != nullptr;
  });
}

void CLPCIntegrate::StartPlugin(const std::string& id) const {
  PluginInfo plugin;
  if (!GetPluginInfoByID(plugin, id)) return;
  CLPCCommunicateWithTolmGuard::GetInstance().ControlGuardProcess(plugin.plugin_id, true);
}

void CLPCIntegrate::NotifyStartPlugins(const std::string& cmdline) {
  CLPCCommunicateWithTolmGuard::GetInstance().NotifyFrameInitedFinished(cmdline);
}

void CLPCIntegrate::RegisterUrl(const std::vector<std::string>& urls) {
  vec_register_url_.Write([&](auto& registered) {
    for (const std::string& url : urls) {
      if (std::find(registered.begin(), registered.end(), url) == registered.end()) registered.push_back(url);
    }
  });
}

void CLPCIntegrate::GetHttpHeaders(std::vector<std::string>& out) const {
  out = vec_http_header_.Read([](const auto& headers) { return headers.ordered; });
}

std::string CLPCIntegrate::GetFrameFullPath() const {
  return frame_full_path_.Read([](const std::string& path) { return path; });
}

}  // namespace TolmLPCFrame
