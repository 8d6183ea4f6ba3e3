#include "Inbox.h"

#include <utility>

namespace tolm::agent {

void Inbox::AskToEnd(bool by_event) {
  const os::MutexLock lock(mutex_);
  asked_ = true;
  asked_by_event_ = asked_by_event_ || by_event;
  changed_.notify_all();
}

void Inbox::GuardEnded(const os::ProcessEnd& end) {
  const os::MutexLock lock(mutex_);
  guard_end_ = end;
  changed_.notify_all();
}

Inbox::News Inbox::Wait(std::chrono::steady_clock::time_point until, os::ProcessEnd& guard_end) {
  os::UniqueLock lock(mutex_);
  changed_.wait_until(lock, until, [this]() TOLM_REQUIRES(mutex_) { return asked_ || guard_end_; });
  if (asked_) return News::kAskedToEnd;
  if (!guard_end_) return News::kNone;
  guard_end = *std::exchange(guard_end_, std::nullopt);
  return News::kGuardEnded;
}

bool Inbox::WasAskedByEvent() const {
  const os::MutexLock lock(mutex_);
  return asked_by_event_;
}

}  // namespace tolm::agent
