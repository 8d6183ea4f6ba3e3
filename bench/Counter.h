#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "Channel.h"

namespace bench {

/// Counts on many threads, and lets one wait for a number.
class Counter {
 public:
  /// To be called before the first of what Wait is to wait for is counted.
  void ExpectMore(std::uint64_t more) {
    groups_ = nullptr;
    awaited_ = count_ + more;
  }
  /// The same of `groups` times kGroup, with a byte through `channel` for each.
  void ExpectGroups(std::uint64_t groups, Channel& channel) {
    ExpectMore(groups * kGroup);
    before_groups_ = count_.load();
    groups_ = &channel;
  }

  void Count() {
    const std::uint64_t count = ++count_;
    if (Channel* const channel = groups_; channel != nullptr && (count - before_groups_) % kGroup == 0) {
      channel->Write("x", 1);
    }
    if (count != awaited_) return;
    const std::lock_guard lock(mutex_);
    reached_ = count;
    changed_.notify_all();
  }
  /// False when the number is not reached in time.
  bool Wait(std::chrono::seconds longest) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, longest, [this] { return reached_ == awaited_; });
  }

 private:
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::uint64_t> awaited_{0};
  std::atomic<std::uint64_t> before_groups_{0};
  std::atomic<Channel*> groups_{nullptr};
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  std::uint64_t reached_ = 0;
};

}  // namespace bench
