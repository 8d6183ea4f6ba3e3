#pragma once

#include <atomic>

#include "os/Mutex.h"

namespace Tolm::Net {

class EventLoop;

/// How other threads get the attention of a server's thread. What they want done lies elsewhere, under a
/// lock of its own; here is only that there is something.
class Waker {
 public:
  /// `loop` is woken from now on, until it is null again.
  void SetLoop(EventLoop* loop);

  /// Any thread, also the server's own.
  void Wake();
  /// Any thread. From now on nothing is to be called back.
  void Stop();
  bool IsStopping() const { return stopping_.load(std::memory_order_acquire); }

  /// The server's thread: whether it was woken since it last asked.
  bool TakeWake() { return woken_.exchange(false, std::memory_order_acq_rel); }

 private:
  std::atomic<bool> stopping_{false};
  std::atomic<bool> woken_{false};
  os::Mutex mutex_;
  // The lock is held while it is woken, since it must not be destroyed then.
  EventLoop* loop_ TOLM_GUARDED_BY(mutex_) TOLM_PT_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace Tolm::Net
