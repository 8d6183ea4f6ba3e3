#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>

#include "HostEvents.h"
#include "Tally.h"

namespace trust::death {

/// The requests for which no thread of the host waits. Each is answered, or its plugin's connection ended
/// behind it; one of which neither can be said within kLost is lost. What is decided stays so: an answer that
/// comes later still is not counted. All operations are for any thread.
class LaterCalls {
 public:
  LaterCalls(Tally& tally, const HostEvents& events);

  /// `send` gives the id of what it has sent to this plugin, or 0.
  void Send(std::size_t plugin, const std::function<std::uint64_t()>& send);
  void Answered(std::uint64_t id);
  /// Decides about those that are old enough.
  void Review();
  /// Nothing is decided any more.
  void HostStopped();

 private:
  struct Pending {
    std::size_t plugin = 0;
    std::uint64_t ends = 0;  // of its connections, before it was sent
    std::int64_t sent_ns = 0;
    std::int64_t ended_ns = 0;  // when its connection's end was noticed; 0: not yet
  };
  using PendingById = std::map<std::uint64_t, Pending>;

  // REQUIRES for all of these: mutex_ is held.
  /// Whether that was the end of it.
  bool Decide(PendingById::value_type& entry, std::int64_t now);
  /// Counts the early answers that are nobody's.
  void DropUnasked();
  void CountUnasked(std::uint64_t id);
  /// Says how far back the undecided ones reach.
  void PublishOldest();

  Tally& tally_;
  const HostEvents& events_;
  std::mutex mutex_;
  // All are guarded by mutex_.
  PendingById pending_;
  std::multiset<std::int64_t> sending_;          // when those began whose senders do not know the id yet
  std::map<std::uint64_t, std::int64_t> early_;  // answered before their sender knew the id, and when
  std::set<std::uint64_t> decided_;              // without an answer
};

}  // namespace trust::death
