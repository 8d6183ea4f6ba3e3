// The orderly end of all plugins.

#include <algorithm>

#include "KRT/KRT.h"
#include "TolmBase/LogLine.h"
#include "TolmLPCServer/LpcServer.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelInfo;

namespace {

constexpr int kPollStep = 1000;    // milliseconds
constexpr int kWaitLimit = 10000;  // milliseconds

}  // namespace

void CLPCIntegrate::UnInit() {
  CloseAllComponents();
  map_url_plugin_id_.Write([](auto& ids) { ids.Clear(); });
  map_url_timeout_.Write([](auto& time_outs) { time_outs.Clear(); });
  vec_register_url_.Write([](auto& urls) { urls.clear(); });
}

// Whether the guard has taken the list that lets it restart nobody.
bool CLPCIntegrate::IsNobodyGuarded() const try {
  const auto nobody_guarded = map_plugin_data_.Read([](const auto& plugins) {
    std::map<std::string, bool> states;
    for (const auto& entry : plugins) states.try_emplace(entry.second.plugin_id, false);
    return states;
  });
  return CLPCCommunicateWithTolmGuard::GetInstance().SetProcessGuardStateList(nobody_guarded);
} catch (...) {
  TOLM_LOG_CAUGHT("the guard is not asked");
  return false;
}

void CLPCIntegrate::CloseAllComponents() {
  auto& guard = CLPCCommunicateWithTolmGuard::GetInstance();
  const bool with_agent =
      frame_type_.Read([](const std::int32_t& type) { return type == kFrameTypeWithAgent; });

  // A guard that does not take the list would restart what ends below, so it is dealt with first.
  const bool guard_handled = !IsNobodyGuarded();
  if (guard_handled) {
    if (with_agent) {
      guard.UnInitTolmAgent();
    } else {
      guard.NotifyFrameUninit();
    }
  }

  proto::CRapidJsonProto message;
  message.set_v("/method", "Uninit");
  tag_LPCRequestData request;
  request.body = message.get_str(0);
  // The one walk that sends under the table's lock: no plugin connects or goes in the middle of it. The
  // lock is shared, and these sends do not wait.
  map_plugin_data_.Read([&](const auto& plugins) {
    for (const auto& [id, plugin] : plugins) {
      if (plugin.connect_state == 0) continue;
      const long long tick = KRT_GetTimeTick64();
      TOLM_LOG(kLogLevelInfo, kTagPluginFrame,
               "[/method:Uninit], Notify [%s] plugin start uninit, time tick [%lld]", id.c_str(), tick);
      {
        // Before the send, since the answer may be here before the send returns.
        const os::MutexLock lock(uniniting_mutex_);
        vec_uniniting_plugin_.push_back(id);
      }
      request.dst_id = id;
      lpcserver::Send(request);
    }
  });

  for (int waited = 0; waited < kWaitLimit; waited += kPollStep) {
    if (!IsAnyUniniting()) {
      TOLM_LOG(kLogLevelInfo, kTagPluginFrame, "All LPC plugins have uninited finish");
      break;
    }
    KRT_Sleep(kPollStep);
  }

  if (guard_handled) return;
  guard.NotifyFrameUninit();
  if (with_agent) guard.UnInitTolmAgent();
}

void CLPCIntegrate::ForgetUniniting(const std::string& id) {
  const os::MutexLock lock(uniniting_mutex_);
  const auto found = std::find(vec_uniniting_plugin_.begin(), vec_uniniting_plugin_.end(), id);
  if (found != vec_uniniting_plugin_.end()) vec_uniniting_plugin_.erase(found);
}

bool CLPCIntegrate::IsAnyUniniting() {
  const os::MutexLock lock(uniniting_mutex_);
  return !vec_uniniting_plugin_.empty();
}

}  // namespace TolmLPCFrame
