#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace TolmLPCFrame {

/// What a sender waits on for its reply. Shared by the sender and the table of waiters.
struct ConditionAndMutex {
  std::mutex mutex;
  std::condition_variable condition;

  /// One wait of at most `timeout_ms` on the steady clock; wake-ups before `is_over` holds do not end it.
  /// What `is_over` says at the end. REQUIRES: `lock` holds `mutex`.
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::int32_t timeout_ms,
               const std::function<bool()>& is_over);
};

}  // namespace TolmLPCFrame
