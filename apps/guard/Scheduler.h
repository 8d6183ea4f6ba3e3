#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace guard {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

/// Where everything that belongs to the supervisor runs, one task after the other on one thread, and the
/// time that it goes by. Now, After and Cancel are for that thread; Post is for every thread.
class Scheduler {
 public:
  using Task = std::function<void()>;
  using TimerId = std::uint64_t;

  virtual ~Scheduler() = default;

  virtual TimePoint Now() const = 0;
  /// Runs `task` later, behind what was posted before.
  virtual void Post(Task task) = 0;
  /// Runs `task` once when `delay` has passed. The id is never 0.
  virtual TimerId After(Milliseconds delay, Task task) = 0;
  /// The timer does not fire any more. Nothing happens for one that has fired, or for 0.
  virtual void Cancel(TimerId timer) = 0;
};

}  // namespace guard
