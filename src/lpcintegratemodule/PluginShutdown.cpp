// The orderly end of all plugins.

#include <algorithm>

#include "KRT/KRT.h"
#include "TolmBase/LogLine.h"
#include "TolmLPCServer/LpcServer.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/Steps.h"
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
  Steps steps;
  steps.Make([this] { CloseAllComponents(); });
  steps.Make([this] { ForgetUrls(); });
  steps.Finish();
}

void CLPCIntegrate::ForgetUrls() {
  Steps steps;
  steps.Make([this] { map_url_plugin_id_.Write([](auto& ids) { ids.Clear(); }); });
  steps.Make([this] { map_url_timeout_.Write([](auto& time_outs) { time_outs.Clear(); }); });
  steps.Make([this] { vec_register_url_.Write([](auto& urls) { urls.clear(); }); });
  steps.Finish();
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
  Steps steps;

  // A guard that does not take the list would restart what ends below, so it is dealt with first.
  const bool guard_handled = !IsNobodyGuarded();
  if (guard_handled) {
    steps.Make([&] {
      if (with_agent) {
        guard.UnInitTolmAgent();
      } else {
        guard.NotifyFrameUninit();
      }
    });
  }

  tag_LPCRequestData request;
  const auto ask_to_end = [&](const std::string& id) {
    const long long tick = KRT_GetTimeTick64();
    TOLM_LOG(kLogLevelInfo, kTagPluginFrame,
             "[/method:Uninit], Notify [%s] plugin start uninit, time tick [%lld]", id.c_str(), tick);
    request.dst_id = id;
    {
      // Before the send, since the answer may be here before the send returns.
      const os::MutexLock lock(uniniting_mutex_);
      vec_uniniting_plugin_.push_back(id);
    }
    lpcserver::Send(request);
  };
  steps.Make([&] {
    proto::CRapidJsonProto message;
    message.set_v("/method", "Uninit");
    request.body = message.get_str(0);
    // The one walk that sends under the table's lock: no plugin connects or goes in the middle of it. The
    // lock is shared, and these sends do not wait.
    map_plugin_data_.Read([&](const auto& plugins) {
      for (const auto& [id, plugin] : plugins) {
        if (plugin.connect_state != 0) steps.Make([&ask_to_end, &asked = id] { ask_to_end(asked); });
      }
    });
  });

  for (int waited = 0; waited < kWaitLimit; waited += kPollStep) {
    if (!IsAnyUniniting()) {
      TOLM_LOG(kLogLevelInfo, kTagPluginFrame, "All LPC plugins have uninited finish");
      break;
    }
    KRT_Sleep(kPollStep);
  }

  if (!guard_handled) {
    steps.Make([&] { guard.NotifyFrameUninit(); });
    if (with_agent) steps.Make([&] { guard.UnInitTolmAgent(); });
  }
  steps.Finish();
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
