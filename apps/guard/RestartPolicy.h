#pragma once

#include <cstddef>
#include <deque>
#include <functional>

#include "Scheduler.h"

namespace guard {

/// When a plugin that has ended is started again. The defaults are those of the manifest.
struct RestartRules {
  enum class When { kAlways, kOnCrash, kNever };

  When when = When::kOnCrash;
  Milliseconds first_delay{50};
  double factor = 2.0;
  Milliseconds max_delay{30000};  ///< before the jitter
  double jitter = 0.2;            ///< each delay is multiplied by something within 1 - jitter and 1 + jitter
  int give_up_after = 5;          ///< restarts within `within`; 0: never gives up
  Milliseconds within{60000};
  Milliseconds stable_after{30000};  ///< a run of that length makes the next restart the first one again

  bool operator==(const RestartRules&) const = default;
};

/// Decides, for one plugin, what follows upon each of its ends: restart n of a row (from 0) comes after
///   min(first_delay * factor^n, max_delay) * (1 - jitter .. 1 + jitter)
class RestartPolicy {
 public:
  struct Decision {
    enum class Kind { kRestart, kStay, kGiveUp };
    Kind kind = Kind::kStay;
    Milliseconds delay{0};

    bool operator==(const Decision&) const = default;
  };

  /// `random` gives numbers from 0 to below 1.
  RestartPolicy(const RestartRules& rules, std::function<double()> random);

  /// The plugin ended at `now` after a run of `ran_for`; `crashed`: not by its own choice.
  Decision OnEnd(TimePoint now, Milliseconds ran_for, bool crashed);
  /// Forgets all restarts so far.
  void Reset();
  /// Restarts within the window that ended with the last OnEnd, its own one included.
  std::size_t recent_restarts() const { return restarts_.size(); }

 private:
  Milliseconds NextDelay();

  const RestartRules rules_;
  const std::function<double()> random_;
  double delay_ms_ = 0;             // of the next restart, before cap and jitter; 0: of the first one
  std::deque<TimePoint> restarts_;  // decided within the window
};

}  // namespace guard
