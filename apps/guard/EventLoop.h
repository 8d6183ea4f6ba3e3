#pragma once

#include <deque>
#include <map>
#include <utility>

#include "Scheduler.h"
#include "os/Mutex.h"

namespace guard {

/// The real scheduler: runs on the thread that calls Run.
class EventLoop : public Scheduler {
 public:
  /// Runs tasks and timers until Stop. A task that throws is logged, and the loop goes on. What is left
  /// then is never run.
  void Run();
  /// From any thread; Run returns when the task that runs now is done.
  void Stop();

  TimePoint Now() const override { return Clock::now(); }
  void Post(Task task) override;
  TimerId After(Milliseconds delay, Task task) override;
  void Cancel(TimerId timer) override;

 private:
  bool TakeNext(Task& task);

  // Used by the loop's thread only.
  std::map<std::pair<TimePoint, TimerId>, Task> timers_;
  std::map<TimerId, TimePoint> due_;
  TimerId last_timer_ = 0;

  os::Mutex mutex_;
  os::Condition posted_;
  std::deque<Task> tasks_ TOLM_GUARDED_BY(mutex_);
  bool stopping_ TOLM_GUARDED_BY(mutex_) = false;
};

}  // namespace guard
