#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "TolmBase/Singleton.h"
#include "TolmBase/Task.h"
#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcRecords.h"
#include "common/Guarded.h"
#include "common/IndexedMap.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

/// Milliseconds: the time-out where nobody gave one, and the least one that a plugin can register.
inline constexpr std::int32_t kDefaultTimeOut = 5000;

/// The plugin registry, and everything that the frame answers on behalf of plugins. One instance in the
/// process, CLPCIntegrate::GetInstance(). All operations may run on many threads at once; each table
/// has its own lock, and no operation holds two of them, except where it says so.
///
/// Its duties stand in a source file each: LPCIntegrate.cpp (the registry), PluginRegistration.cpp,
/// PluginMethods.cpp, UrlDispatch.cpp, PluginShutdown.cpp.
///
/// How a url is looked up: cut before its first "?", turned into its pattern (common/UrlTemplate.h),
/// lower-cased. A registered url is only lower-cased, so a plugin registers patterns.
class CLPCIntegrate {
 public:
  static CLPCIntegrate& GetInstance();

  // The registry.

  /// Takes over the host's plugin list and, for frame type 1, starts the agent.
  void Init(const PlatformInfo& info);
  void SetPluginData(const PlatformInfo& info);
  bool GetPluginInfoByID(PluginInfo& out, const std::string& id) const;
  /// A copy of the whole plugin list.
  std::map<std::string, PluginInfo> GetPluginData() const;
  /// Sets the flag of a listed plugin and tells the host, unless the flag has that value already. Tells
  /// the host about an unlisted one as well.
  void SetPluginInitState(bool state, const std::string& id);
  bool GetPluginInitState(const std::string& id) const;
  /// Every listed plugin's id and whether it has finished initialising, in key order.
  std::map<std::string, bool> GetPluginInitStates() const;
  bool IsUrlFromPlugin(std::int32_t& time_out, const std::string& url) const;
  bool FindDstIdByUrl(std::string& id, const std::string& url) const;
  void StartPlugin(const std::string& id) const;
  void NotifyStartPlugins(const std::string& cmdline);
  void RegisterUrl(const std::vector<std::string>& urls);
  void GetHttpHeaders(std::vector<std::string>& out) const;
  /// The host's full path, as Init was given it.
  std::string GetFrameFullPath() const;

  // What plugins send.

  /// A plugin's registration: its urls with their time-outs, and the header names that it uses.
  void PluginURLRegister(const tag_LPCCallBackData& request);
  /// A message without url: "connectionStatusChanged", "serverListenFailed", "InitFinish", "UninitFinish".
  /// `arrival` is its number in the order of arrival, without which it counts as the latest: tasks may run
  /// in another order, and the later word on a connection is the one that stays.
  void MethodCallBackEIT(tag_LPCCallBackData&& request, std::uint64_t arrival = NextArrival());
  void PluginStatusChanged(const LPCData& data, std::uint64_t arrival = NextArrival());
  static std::uint64_t NextArrival();
  /// A message with a url: to the registration, to the plugin that serves it, or to the host.
  void URLCallBackEIT(const std::string& ori_url, const std::string& method, tag_LPCCallBackData&& request);
  /// Delivers one message: kind 0 to the host, 1 to a plugin.
  void URLTaskEIT(std::int32_t kind, const std::string& url, tag_LPCCallBackData&& request) const;
  void PluginURLAddressForward(const std::string& url, tag_LPCCallBackData&& request) const;

  // The end.

  /// Of both, each step is made, whatever fails before it; what the first one has thrown comes last.
  void UnInit();
  void CloseAllComponents();
  /// Of plugins and of the host.
  void ForgetUrls();

 private:
  friend class Tolm::Base::CSingleton<CLPCIntegrate>;

  bool IsNobodyGuarded() const;
  CLPCIntegrate();

  struct ListedPlugin : PluginInfo {
    std::uint64_t connection_word = 0;  ///< the arrival of what connect_state is from; 0: from the host
  };

  struct InitStates {
    std::map<std::string, bool> map_plugin_init_status_;
    std::vector<std::string> vec_inited_plugin_;
  };

  struct InitProgress {
    bool listed = false;        ///< the host listed this plugin
    bool all_finished = false;  ///< as many plugins have finished as are listed
  };

  /// Notes that a plugin has finished initialising.
  InitProgress MarkInited(const std::string& id);
  /// Sets the connection state of a listed plugin, unless a later word on it is known, and gives its plugin
  /// id; nothing when it is not listed.
  std::optional<std::string> SetConnectState(const std::string& component_id, std::int32_t state,
                                             std::uint64_t arrival);
  /// Stops waiting for a plugin's answer to "Uninit", if that goes on.
  void ForgetUniniting(const std::string& id) TOLM_EXCLUDES(uniniting_mutex_);
  bool IsAnyUniniting() TOLM_EXCLUDES(uniniting_mutex_);

  const std::string register_url_;
  const std::string messages_url_;
  const std::string method_connection_status_changed_;
  const std::string method_server_listen_failed_;
  const std::string method_init_finish_;
  const std::string method_uninit_finish_;

  Guarded<InitStates> init_states_;
  Guarded<std::map<std::string, ListedPlugin>> map_plugin_data_;
  Guarded<IndexedMap<std::string>> map_url_plugin_id_;
  Guarded<IndexedMap<std::int32_t>> map_url_timeout_;
  struct HttpHeaderNames {
    std::vector<std::string> ordered;  ///< as they came
    std::unordered_set<std::string> known;
  };
  Guarded<HttpHeaderNames> vec_http_header_;
  Guarded<std::vector<std::string>> vec_register_url_;
  Guarded<std::string> frame_full_path_;
  Guarded<std::int32_t> frame_type_;

  /// Never held across a send or a sleep.
  os::Mutex uniniting_mutex_;
  std::vector<std::string> vec_uniniting_plugin_ TOLM_GUARDED_BY(uniniting_mutex_);
};

/// One message on its way to the host (kind 0) or to a plugin (kind 1).
class CURLTask : public Tolm::Base::CTask {
 public:
  CURLTask(std::int32_t kind, std::string url, tag_LPCCallBackData&& request);
  void Run() override;

 private:
  std::int32_t kind_;
  std::string url_;
  std::string reserved_;  ///< always empty
  tag_LPCCallBackData request_;
};

}  // namespace TolmLPCFrame
