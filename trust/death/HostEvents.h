#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Tally.h"

namespace trust::death {

/// Checks the order in which the host is told of its plugins. Events 2 and 3 of one plugin that come in quick
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
  struct State {
    int connections = 0;                            // events 2 less events 3
    std::chrono::steady_clock::time_point strayed;  // when that became neither 0 nor 1
    std::uint64_t ends = 0;
  };

  Tally& tally_;
  const std::vector<std::string> plugins_;
  mutable std::mutex mutex_;
  std::array<State, kMaxPlugins> states_;  // guarded by mutex_
};

}  // namespace trust::death
