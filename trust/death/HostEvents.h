#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Tally.h"

namespace trust::death {

/// Checks the order in which the host is told of its plugins. Events of one plugin that come in quick
/// succession may change places, which is counted; anything else is out of order. All operations are for any
/// thread.
class HostEvents {
 public:
  HostEvents(Tally& tally, std::vector<std::string> plugins);

  /// Events 2 to 5.
  void On(std::int32_t kind, const std::string& plugin);
  /// How often this plugin's connections have ended so far.
  std::uint64_t Ends(std::size_t plugin) const;
  /// Where it stands in the list; its size when it does not.
  std::size_t IndexOf(const std::string& plugin) const;

 private:
  using Time = std::chrono::steady_clock::time_point;
  struct State {
    int connections = 0;  // events 2 less events 3
    Time strayed;         // when that became neither 0 nor 1
    std::uint64_t ends = 0;
    Time ended;               // the last one
    std::vector<Time> ahead;  // events 4 whose connection is still to be told of
  };

  // REQUIRES for all of these: mutex_ is held.
  void OnConnected(State& state, Time now);
  void OnInitialised(State& state, Time now);
  /// Two events came in the wrong order, so far apart.
  void Count(std::chrono::nanoseconds apart);

  Tally& tally_;
  const std::vector<std::string> plugins_;
  mutable std::mutex mutex_;
  std::array<State, kMaxPlugins> states_;  // guarded by mutex_
};

}  // namespace trust::death
