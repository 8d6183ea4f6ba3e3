#include "Outbox.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Tolm::Net {
namespace {

// Frames without content cost something as well.
constexpr std::size_t kMinCost = 64;

}  // namespace

Outbox::Outbox(std::shared_ptr<Waker> waker, std::int32_t socket_id, std::string client_ip,
               std::size_t max_bytes)
    : waker_(std::move(waker)),
      socket_id_(socket_id),
      client_ip_(std::move(client_ip)),
      max_bytes_(max_bytes) {}

int Outbox::Send(int opcode, const char* data, std::uint32_t len, bool fin) {
  const std::size_t cost = std::max<std::size_t>(len, kMinCost);
  {
    const os::MutexLock lock(mutex_);
    if (shut_ || close_requested_) return kNetNoSuchHandle;
    if (cost > max_bytes_ || bytes_ > max_bytes_ - cost) return kNetQueueFull;
    bytes_ += cost;
  }
  // Copied unlocked, in the room that has been reserved: a large frame holds nobody up.
  OutgoingFrame frame;
  int result = kNetOk;
  try {
    frame = MakeFrame(opcode, fin, data, len);
  } catch (const std::bad_alloc&) {
    result = kNetNoMemory;
  }
  {
    const os::MutexLock lock(mutex_);
    if (result == kNetOk && (shut_ || close_requested_)) result = kNetNoSuchHandle;
    if (result == kNetOk) {
      try {
        costs_.push_back(cost);
        try {
          frames_.push_back(std::move(frame));
        } catch (...) {
          costs_.pop_back();
          throw;
        }
      } catch (const std::bad_alloc&) {
        result = kNetNoMemory;
      }
    }
    if (result != kNetOk) {
      bytes_ -= cost;
      return result;
    }
  }
  waker_->Wake();
  return kNetOk;
}

void Outbox::RequestClose() {
  {
    const os::MutexLock lock(mutex_);
    if (shut_ || close_requested_) return;
    close_requested_ = true;
  }
  waker_->Wake();
}

bool Outbox::IsCloseRequested() const {
  const os::MutexLock lock(mutex_);
  return close_requested_;
}

Outbox::Next Outbox::Take(OutgoingFrame& frame) {
  const os::MutexLock lock(mutex_);
  if (frames_.empty()) return close_requested_ ? Next::kClose : Next::kNothing;
  frame = std::move(frames_.front());
  frames_.pop_front();
  return Next::kFrame;
}

void Outbox::Done() {
  const os::MutexLock lock(mutex_);
  bytes_ -= costs_.front();
  costs_.pop_front();
}

std::size_t Outbox::Shut() {
  const os::MutexLock lock(mutex_);
  shut_ = true;
  const std::size_t lost = frames_.size();
  frames_.clear();
  return lost;
}

}  // namespace Tolm::Net
