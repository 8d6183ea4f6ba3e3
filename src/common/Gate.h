#pragma once

#include <atomic>

#include "os/Mutex.h"

namespace TolmLPCFrame {

/// Threads wait at it while it is closed. Not std::atomic's own wait: where a system cannot wait for a value,
/// GCC 12's library makes that of a mutex and a condition and looks at the value before it holds the mutex,
/// so that wake-ups are lost.
class Gate {
 public:
  explicit Gate(bool is_open) : is_open_(is_open) {}
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void Close() {
    const os::MutexLock lock(mutex_);
    is_open_ = false;
  }
  void Open() {
    const os::MutexLock lock(mutex_);
    is_open_ = true;
    opened_.notify_all();
  }
  /// Returns when it has been seen open.
  void Pass() {
    if (is_open_) return;
    os::UniqueLock lock(mutex_);
    opened_.wait(lock, [this] { return is_open_.load(); });
  }

 private:
  std::atomic<bool> is_open_;  // changed with mutex_ held
  os::Mutex mutex_;
  os::Condition opened_;
};

}  // namespace TolmLPCFrame
