#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>

#include "HostEvents.h"
#include "Tally.h"

namespace trust::death {

/// The requests for which no thread of the host waits. Each is answered, or its plugin's connection ended
/// behind it; one of which neither can be said is lost. All operations are for any thread.
class LaterCalls {
 public:
  LaterCalls(Tally& tally, const HostEvents& events) : tally_(tally), events_(events) {}

  /// `send` gives the id of what it has sent to this plugin, or 0.
  void Send(std::size_t plugin, const std::function<std::uint64_t()>& send);
  void Answered(std::uint64_t id);
  /// Decides about those that are old enough.
  void Review();

 private:
  struct Pending {
    std::size_t plugin = 0;
    std::uint64_t ends = 0;  // of its connections, before it was sent
    std::chrono::steady_clock::time_point sent;
  };

  Tally& tally_;
  const HostEvents& events_;
  std::mutex mutex_;
  // Both are guarded by mutex_.
  std::map<std::uint64_t, Pending> pending_;
  std::set<std::uint64_t> early_;  // answered before their sender knew the id
};

}  // namespace trust::death
