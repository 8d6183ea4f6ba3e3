#include "Waker.h"

#include "EventLoop.h"

namespace Tolm::Net {

void Waker::SetLoop(EventLoop* loop) {
  const os::MutexLock lock(mutex_);
  loop_ = loop;
}

void Waker::Wake() {
  if (woken_.exchange(true, std::memory_order_acq_rel)) return;  // somebody did, and nobody has looked yet
  const os::MutexLock lock(mutex_);
  if (loop_ != nullptr) loop_->Wake();
}

void Waker::Stop() {
  stopping_.store(true, std::memory_order_release);
  const os::MutexLock lock(mutex_);
  if (loop_ != nullptr) loop_->Wake();
}

}  // namespace Tolm::Net
