#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tolm::test {

/// Holds threads up until it is opened. One that was forgotten lets them go after a while, so that the
/// test fails instead of hanging.
class Gate {
 public:
  ~Gate() { Open(); }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  /// False when nobody opened it.
  bool Wait() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    const bool opened = changed_.wait_for(lock, std::chrono::seconds(30), [this] { return open_; });
    --waiting_;
    return opened;
  }
  int Waiting() const {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int waiting_ = 0;
};

}  // namespace tolm::test
