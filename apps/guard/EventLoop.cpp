#include "EventLoop.h"

#include <exception>

#include "TolmBase/LogLine.h"

namespace guard {

void EventLoop::Run() {
  Task task;
  while (TakeNext(task)) {
    try {
      task();
    } catch (const std::exception& error) {
      TOLM_LOG(Tolm::Base::kLogLevelError, "TolmGuard", "a task failed: %s", error.what());
    } catch (...) {
      TOLM_LOG(Tolm::Base::kLogLevelError, "TolmGuard", "a task failed");
    }
    task = nullptr;
  }
}

// Timers that are due come before posted tasks: a flood of posts must not put off a kill.
bool EventLoop::TakeNext(Task& task) {
  os::UniqueLock lock(mutex_);
  for (;;) {
    if (stopping_) return false;
    if (!timers_.empty() && timers_.begin()->first.first <= Clock::now()) {
      auto timer = timers_.extract(timers_.begin());
      due_.erase(timer.key().second);
      task = std::move(timer.mapped());
      return true;
    }
    if (!tasks_.empty()) {
      task = std::move(tasks_.front());
      tasks_.pop_front();
      return true;
    }
    if (timers_.empty()) {
      posted_.wait(lock);
    } else {
      posted_.wait_until(lock, timers_.begin()->first.first);
    }
  }
}

void EventLoop::Stop() {
  const os::MutexLock lock(mutex_);
  stopping_ = true;
  posted_.notify_one();
}

void EventLoop::Post(Task task) {
  const os::MutexLock lock(mutex_);
  tasks_.push_back(std::move(task));
  posted_.notify_one();
}

Scheduler::TimerId EventLoop::After(Milliseconds delay, Task task) {
  const TimerId timer = ++last_timer_;
  const TimePoint due = Clock::now() + delay;
  const auto noted = due_.emplace(timer, due).first;
  try {
    timers_.emplace(std::pair(due, timer), std::move(task));
  } catch (...) {
    due_.erase(noted);
    throw;
  }
  return timer;
}

void EventLoop::Cancel(TimerId timer) {
  const auto found = due_.find(timer);
  if (found == due_.end()) return;
  timers_.erase({found->second, timer});
  due_.erase(found);
}

}  // namespace guard
