#include "wire/Link.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace lpc::wire {
namespace {

// Made when the first link is.
const std::string& ClosedByPeer() {
  static const std::string& text = *new std::string("the connection was closed");
  return text;
}

}  // namespace

Link::Link(std::unique_ptr<os::Stream> stream, std::shared_ptr<IoLoop> loop, const Options& options,
           LinkOwner& owner)
    : stream_(std::move(stream)),
      loop_(std::move(loop)),
      options_(options),
      owner_(owner),
      identity_(stream_->Peer()),
      queue_(*stream_, options_),
      reader_(options_) {
  ClosedByPeer();
}

Link::~Link() {
  pending_.FailAll(kPeerGone);
}

bool Link::Begin() {
  try {
    token_ = loop_->Register(weak_from_this());
  } catch (const std::exception&) {
    const os::MutexLock lock(mutex_);
    gone_ = true;
    return false;
  }
  {
    const os::MutexLock lock(mutex_);
    in_charge_ = false;
    if (loop_->Arm(*stream_, token_, os::Poller::kRead)) return true;
    gone_ = true;
  }
  loop_->Unregister(*stream_, token_);
  return false;
}

void Link::Continue() {
  {
    const os::MutexLock lock(mutex_);
    if (!on_hold_) {
      continued_ = true;
      return;
    }
    on_hold_ = false;
  }
  Work();
}

void Link::Open(std::string peer_name, std::uint64_t max_bytes) {
  peer_name_ = std::move(peer_name);
  send_limit_ = static_cast<std::size_t>(std::min<std::uint64_t>(max_bytes, options_.max_message_bytes));
  reader_.AcceptMessages();
  open_.store(true, std::memory_order_release);
}

// --- who reads, and what is asked of the poller ---

// Asks for everything that is wanted now: a readiness given out has used up what was asked for before.
void Link::ArmLocked() {
  if (gone_) return;
  const bool want_read = !in_charge_ && !paused_;
  const unsigned interest = (want_read ? os::Poller::kRead : 0u) | (want_write_ ? os::Poller::kWrite : 0u);
  loop_->Arm(*stream_, token_, interest);
}

bool Link::TakeCharge() {
  const os::MutexLock lock(mutex_);
  if (gone_ || in_charge_) return false;
  in_charge_ = true;
  return true;
}

void Link::GiveUpCharge() {
  const bool may_read = MayReadMore();
  const os::MutexLock lock(mutex_);
  // Asked again under the lock: whoever gives back bytes, or begins to wait, looks at paused_ under it
  // afterwards.
  paused_ = !may_read && pending_.empty() &&
            inbound_bytes_.load(std::memory_order_relaxed) >= options_.max_inbound_bytes / 2;
  in_charge_ = false;
  ArmLocked();
}

bool Link::IsPaused() const {
  const os::MutexLock lock(mutex_);
  return paused_;
}

// --- the end ---

void Link::CutOff(int error, std::string_view reason) noexcept {
  {
    const os::MutexLock lock(mutex_);
    // What was done wrong says more than that it is gone.
    if (close_reason_.empty() || (close_error_ == kPeerGone && error != kPeerGone)) {
      close_error_ = error;
      try {
        close_reason_ = reason;
      } catch (const std::exception&) {
        close_reason_ = kNoMemory;
      }
    }
  }
  // The last words of a peer that is merely gone are still read.
  if (error != kPeerGone) cut_off_.store(true, std::memory_order_relaxed);
  stream_->Shutdown();  // the poller tells a thread, which closes
}

void Link::CloseInCharge(int error, std::string& reason) noexcept {
  int known_error = error;
  {
    const os::MutexLock lock(mutex_);
    gone_ = true;
    // Its last words say more than that it could not be written to any more.
    if (close_error_ != kPeerGone || reason.empty()) {
      known_error = close_error_;
      reason = std::move(close_reason_);
    }
  }
  const bool was_open = open_.exchange(false, std::memory_order_acq_rel);
  loop_->Unregister(*stream_, token_);
  FailSenders(kPeerGone);
  stream_->Shutdown();
  owner_.OnClosed(*this, was_open, known_error, reason.empty() ? ClosedByPeer() : reason);
}

void Link::FailWaiters(int error) {
  pending_.FailAll(error);
}

void Link::FailSenders(int error) {
  queue_.Close();
  pending_.FailAll(error);
}

void Link::WaitUntilSent(int milliseconds) {
  OnFlush();
  queue_.WaitUntilSent(std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds));
}

void Link::Abandon() {
  WorkList kept;  // destroyed unlocked
  {
    const os::MutexLock lock(mutex_);
    gone_ = true;
    kept.swap(kept_);
  }
  loop_->Unregister(*stream_, token_);
  FailSenders(kPeerGone);
  stream_->Shutdown();
}

}  // namespace lpc::wire
