#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "os/ChildProcess.h"

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
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All are guarded by mutex_.
  bool asked_ = false;
  bool asked_by_event_ = false;
  std::optional<os::ProcessEnd> guard_end_;
};

}  // namespace tolm::agent
