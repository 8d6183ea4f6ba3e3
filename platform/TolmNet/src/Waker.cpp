#include "Waker.h"

#include <libwebsockets.h>

namespace Tolm::Net {

void Waker::SetContext(lws_context* context) {
  const std::lock_guard lock(mutex_);
  context_ = context;
}

void Waker::Wake() {
  if (woken_.exchange(true, std::memory_order_acq_rel)) return;  // somebody did, and nobody has looked yet
  const std::lock_guard lock(mutex_);
  if (context_ != nullptr) lws_cancel_service(context_);
}

void Waker::Stop() {
  stopping_.store(true, std::memory_order_release);
  const std::lock_guard lock(mutex_);
  if (context_ != nullptr) lws_cancel_service(context_);
}

}  // namespace Tolm::Net
