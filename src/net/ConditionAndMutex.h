#pragma once

#include <cstdint>
#include <functional>

#include "os/Mutex.h"

namespace TolmLPCFrame {

/// What a sender waits on for its reply. Shared by the sender and the table of waiters.
struct ConditionAndMutex {
  os::Mutex mutex;
  os::Condition condition;

  /// One wait of at most `timeout_ms` on the steady clock; wake-ups before `is_over` holds do not end it.
  /// What `is_over` says at the end. `lock` holds `mutex`.
  bool WaitFor(os::UniqueLock& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over)
      TOLM_REQUIRES(mutex);
};

}  // namespace TolmLPCFrame
