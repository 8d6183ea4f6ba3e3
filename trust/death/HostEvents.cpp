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
  const Time now = std::chrono::steady_clock::now();
  const bool was_astray = state.connections != 0 && state.connections != 1;
  if (kind == TolmLPCFrame::kLpcMsgPluginConnected) OnConnected(state, now);
  if (kind == TolmLPCFrame::kLpcMsgPluginDisconnected) {
    --state.connections;
    ++state.ends;
    state.ended = now;
  }
  if (kind == TolmLPCFrame::kLpcMsgPluginInited) OnInitialised(state, now);
  const bool is_astray = state.connections != 0 && state.connections != 1;
  if (is_astray && !was_astray) state.strayed = now;
  if (was_astray && !is_astray) Count(now - state.strayed);
  tally_.connections[index] = state.connections;
}

void HostEvents::OnConnected(State& state, Time now) {
  ++state.connections;
  for (const Time initialised : state.ahead) Count(now - initialised);
  state.ahead.clear();
}

void HostEvents::OnInitialised(State& state, Time now) {
  if (state.connections >= 1) return;
  if (state.ends != 0 && now - state.ended <= kQuick) {
    Count(now - state.ended);
  } else {
    // Whether it was only ahead of its connection is seen when that comes.
    state.ahead.push_back(now);
  }
}

void HostEvents::Count(std::chrono::nanoseconds apart) {
  const bool is_quick = apart <= kQuick;
  ++(is_quick ? tally_.events_swapped : tally_.events_out_of_order);
  if (is_quick) return;
  std::fprintf(stderr, "events of a plugin's connections are out of order, %lld ms apart\n",
               static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(apart).count()));
}

}  // namespace trust::death
