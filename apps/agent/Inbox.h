#pragma once

#include <chrono>
#include <optional>

#include "os/ChildProcess.h"
#include "os/Mutex.h"

namespace tolm::agent {

/// What other threads have to tell the agent's own one.
class Inbox {
 public:
  enum class News { kNone, kAskedToEnd, kGuardEnded };

  /// A request to end is never taken back; `by_event` says that somebody waits for the answer.
  void AskToEnd(bool by_event);
  void GuardEnded(const os::ProcessEnd& end);

  /// Waits until there is news, at most until `until`. A request to end comes first, every time.
  News Wait(std::chrono::steady_clock::time_point until, os::ProcessEnd& guard_end);
  bool WasAskedByEvent() const;

 private:
  mutable os::Mutex mutex_;
  os::Condition changed_;
  bool asked_ TOLM_GUARDED_BY(mutex_) = false;
  bool asked_by_event_ TOLM_GUARDED_BY(mutex_) = false;
  std::optional<os::ProcessEnd> guard_end_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace tolm::agent
