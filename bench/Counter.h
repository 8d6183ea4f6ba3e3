#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace bench {

/// Counts on many threads, and lets one wait for a number.
class Counter {
 public:
  /// To be called before the first of what Wait is to wait for is counted.
  void ExpectMore(std::uint64_t more) { awaited_ = count_ + more; }
  void Count() {
    if (++count_ != awaited_) return;
    const std::lock_guard lock(mutex_);
    reached_.notify_all();
  }
  /// False when the number is not reached in time.
  bool Wait(std::chrono::seconds longest) {
    std::unique_lock lock(mutex_);
    return reached_.wait_for(lock, longest, [this] { return count_ >= awaited_; });
  }

 private:
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::uint64_t> awaited_{0};
  std::mutex mutex_;
  std::condition_variable reached_;
};

}  // namespace bench
