#pragma once

#include <deque>
#include <map>
#include <utility>

#include "Scheduler.h"

namespace guard::test {

/// A scheduler whose time goes by only when a test says so.
class VirtualScheduler : public Scheduler {
 public:
  TimePoint Now() const override { return now_; }
  void Post(Task task) override { posted_.push_back(std::move(task)); }
  TimerId After(Milliseconds delay, Task task) override {
    timers_.emplace(std::pair(now_ + delay, ++last_timer_), std::move(task));
    return last_timer_;
  }
  void Cancel(TimerId timer) override {
    std::erase_if(timers_, [timer](const auto& entry) { return entry.first.second == timer; });
  }

  void RunPosted() {
    while (!posted_.empty()) {
      const Task task = std::move(posted_.front());
      posted_.pop_front();
      task();
    }
  }

  /// Lets `time` go by; all that falls due runs at its time.
  void Advance(Milliseconds time) {
    const TimePoint end = now_ + time;
    RunPosted();
    while (!timers_.empty() && timers_.begin()->first.first <= end) {
      auto timer = timers_.extract(timers_.begin());
      now_ = timer.key().first;
      timer.mapped()();
      RunPosted();
    }
    now_ = end;
  }

  std::size_t timers() const { return timers_.size(); }

 private:
  TimePoint now_{std::chrono::hours(1)};
  std::deque<Task> posted_;
  std::map<std::pair<TimePoint, TimerId>, Task> timers_;
  TimerId last_timer_ = 0;
};

}  // namespace guard::test
