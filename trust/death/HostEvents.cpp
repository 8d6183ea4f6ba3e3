#include "HostEvents.h"

#include <algorithm>
#include <cstdio>

#include "TolmLPCFrame.h"

namespace trust::death {
namespace {

/// What is as far apart is no quick succession any more.
constexpr std::chrono::milliseconds kQuick{500};

}  // namespace

HostEvents::HostEvents(Tally& tally, std::vector<std::string> plugins)
    : tally_(tally), plugins_(std::move(plugins)) {
  for (auto& connections : tally_.connections) connections = 0;
}

std::size_t HostEvents::IndexOf(const std::string& plugin) const {
  return static_cast<std::size_t>(std::find(plugins_.begin(), plugins_.end(), plugin) - plugins_.begin());
}

std::uint64_t HostEvents::Ends(std::size_t plugin) const {
  const std::lock_guard lock(mutex_);
  return states_[plugin].ends;
}

void HostEvents::On(std::int32_t kind, const std::string& plugin) {
  const std::size_t index = IndexOf(plugin);
  if (index == plugins_.size()) return;
  ++tally_.events;
  const std::lock_guard lock(mutex_);
  State& state = states_[index];
  const auto now = std::chrono::steady_clock::now();
  const bool was_astray = state.connections != 0 && state.connections != 1;
  if (kind == TolmLPCFrame::kLpcMsgPluginConnected) ++state.connections;
  if (kind == TolmLPCFrame::kLpcMsgPluginDisconnected) {
    --state.connections;
    ++state.ends;
  }
  if (kind == TolmLPCFrame::kLpcMsgPluginInited && state.connections < 1) {
    // Its connection has ended meanwhile, or is told of in a moment: neither is promised.
    ++tally_.events_swapped;
  }
  const bool is_astray = state.connections != 0 && state.connections != 1;
  if (is_astray && !was_astray) state.strayed = now;
  if (was_astray && !is_astray) {
    const bool is_quick = now - state.strayed <= kQuick;
    ++(is_quick ? tally_.events_swapped : tally_.events_out_of_order);
    if (!is_quick)
      std::fprintf(stderr, "plugin %s: events of connections are out of order\n", plugin.c_str());
  }
  tally_.connections[index] = state.connections;
}

}  // namespace trust::death
