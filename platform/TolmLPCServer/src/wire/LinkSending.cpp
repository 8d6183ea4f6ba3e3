// The half of a link that sends.

#include <algorithm>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "wire/Link.h"

namespace lpc::wire {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr char kNotWritable[] = "it could not be written to";
constexpr char kTornMessage[] = "there is no memory for the rest of a message to it";
// So many messages that one thread sends without such a pause are a burst.
constexpr int kBurst = 32;
constexpr auto kBurstPause = std::chrono::microseconds(50);

}  // namespace

int Link::Send(const OutgoingMessage& message) {
  bool blocked = false;
  const int error = Send(message, IsOneOfMany(), blocked);
  if (blocked) AskForWritability();
  return error;
}

// Whether more messages follow this one so soon that it had better be written with them: the calling thread
// has more callbacks to run, or has sent many without a pause.
bool Link::IsOneOfMany() const {
  if (!loop_->CanFlushSoon()) return false;
  if (loop_->MoreFollows()) return true;
  struct Burst {
    const Link* link = nullptr;
    IoLoop::Clock::time_point latest;
    int length = 0;
  };
  thread_local Burst burst;
  const auto now = IoLoop::Clock::now();
  const bool goes_on = burst.link == this && now - burst.latest < kBurstPause;
  burst = {this, now, goes_on ? burst.length + 1 : 0};
  return burst.length >= kBurst;
}

void Link::OnFlush() {
  const SendQueue::Outcome outcome = queue_.Flush();
  if (outcome == SendQueue::Outcome::kBlocked) AskForWritability();
  if (outcome == SendQueue::Outcome::kBroken) CutOff(kPeerGone, kNotWritable);
}

// Sets `blocked` when somebody has to go on as soon as the stream takes more.
int Link::Send(const OutgoingMessage& message, bool more_follow, bool& blocked) {
  if (const int error = CheckLimits(message, send_limit_, options_.max_params); error != kOk) return error;
  switch (queue_.Send(message, more_follow)) {
    case SendQueue::Outcome::kGathered:
      try {
        loop_->FlushSoon(weak_from_this());
      } catch (const std::exception&) {
        OnFlush();  // what nobody comes back to goes now
      }
      return kOk;
    case SendQueue::Outcome::kSent:
    case SendQueue::Outcome::kQueued:
      return kOk;
    case SendQueue::Outcome::kBlocked:
      blocked = true;
      return kOk;
    case SendQueue::Outcome::kFull:
      return kQueueFull;
    case SendQueue::Outcome::kSentLast:
      CutOff(kPeerGone, kNotWritable);
      return kOk;
    case SendQueue::Outcome::kNoMemory:
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "no memory for a message of %zu bytes to peer [%s]",
               message.body.bytes.size(), peer_name_.c_str());
      blocked = true;
      return kFailed;
    case SendQueue::Outcome::kTorn:
      CutOff(kFailed, kTornMessage);
      return kFailed;
    case SendQueue::Outcome::kBroken:
      break;
  }
  CutOff(kPeerGone, kNotWritable);
  return kPeerGone;
}

int Link::SendAndWait(const OutgoingMessage& request, int time_out_ms, InboundMessage& reply) {
  const auto deadline = IoLoop::Clock::now() + std::chrono::milliseconds(std::max(0, time_out_ms));
  const auto waiter = Waiter::ForThisThread();
  if (!pending_.Add(request.id, waiter)) return kPeerGone;
  bool leads = false;
  {
    const os::MutexLock lock(mutex_);
    // A peer that is not read from must be, now that somebody waits for its answer.
    paused_ = false;
    leads = !in_charge_ && !gone_;
    in_charge_ |= leads;
    if (leads) ArmLocked();
  }
  bool blocked = false;
  int error = kOk;
  try {
    error = Send(request, false, blocked);
  } catch (...) {
    // Others need the charge, and nobody waits for this reply.
    if (leads) GiveUpCharge();
    pending_.Remove(request.id);
    throw;
  }
  const bool writes = blocked && error == kOk && leads && stream_->CanWaitForRoom();
  if (blocked && !writes) AskForWritability();
  if (leads && error != kOk) GiveUpCharge();
  if (error == kOk) error = leads ? Lead(*waiter, deadline, writes) : waiter->WaitUntil(deadline);
  if (error == kOk) {
    reply = std::move(waiter->reply());
    return kOk;
  }
  if (!pending_.Remove(request.id) && error == kTimeOut) {
    // Somebody has taken it out with a reply in his hands. To go now would lose that reply uncounted.
    error = waiter->Wait();
    if (error == kOk) reply = std::move(waiter->reply());
    return error;
  }
  if (error == kTimeOut) SendControl(FrameType::kCancel, request.id);
  return error;
}

void Link::SendControl(FrameType type, std::uint64_t message_id, const std::string& payload) noexcept {
  auto outcome = SendQueue::Outcome::kBroken;
  try {
    outcome = queue_.SendControl(type, message_id, payload);
  } catch (const std::exception&) {
    CutOff(kFailed, kNoMemory);
    return;
  }
  if (outcome == SendQueue::Outcome::kBlocked) AskForWritability();
  if (outcome == SendQueue::Outcome::kBroken) CutOff(kPeerGone, kNotWritable);
  if (outcome == SendQueue::Outcome::kFull)
    CutOff(kQueueFull, "it does not take the answers to what it sends");
}

void Link::SendNotice(FrameType type, std::uint64_t message_id, int code, std::string_view reason) noexcept {
  std::string payload;
  try {
    payload = EncodeNotice({static_cast<std::uint16_t>(code), std::string(reason)});
  } catch (const std::exception&) {
    CutOff(kFailed, kNoMemory);
    return;
  }
  SendControl(type, message_id, payload);
}

void Link::AskForWritability() {
  {
    const os::MutexLock lock(mutex_);
    want_write_ = true;
    ArmLocked();
  }
  BoundStall();
}

// A peer that takes nothing for too long is cut off.
void Link::BoundStall() {
  loop_->RunHousekeepingBy(IoLoop::Clock::now() + std::chrono::milliseconds(options_.stall_ms));
}

// Whether there is still more to write than the stream takes.
bool Link::WriteOn() {
  const SendQueue::Outcome outcome = queue_.Resume();
  if (outcome == SendQueue::Outcome::kBroken) CutOff(kPeerGone, kNotWritable);
  return outcome == SendQueue::Outcome::kBlocked;
}

IoLoop::Clock::time_point Link::StallDeadline() const {
  const auto since = queue_.BlockedSince();
  return since ? *since + std::chrono::milliseconds(options_.stall_ms) : IoLoop::Clock::time_point::max();
}

}  // namespace lpc::wire
