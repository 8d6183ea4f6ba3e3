#include "wire/Link.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "TolmBase/LogLine.h"
#include "os/PerThread.h"

namespace lpc::wire {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr char kNotWritable[] = "it could not be written to";
// Short enough for a string to hold it without memory of its own.
constexpr char kNoMemory[] = "memory is short";
constexpr char kTornMessage[] = "there is no memory for the rest of a message to it";
constexpr std::size_t kReadBuffer = 64u << 10;
constexpr std::size_t kBehindPlace = 4u << 10;
// A thread in charge gives others a chance after this much.
constexpr std::size_t kReadTurn = 1u << 20;
// So long a thread stays with a body whose sender goes on, and waits for it to do so.
constexpr auto kBodyTurn = std::chrono::milliseconds(50);
constexpr int kBodyWaitMs = 2;
// So many messages that one thread sends without such a pause are a burst.
constexpr int kBurst = 32;
constexpr auto kBurstPause = std::chrono::microseconds(50);
// So often a thread that reads for others looks whether its own wait has ended otherwise than by what it
// reads.
constexpr std::int64_t kLeadTurnMs = 100;
// What a message costs beside its bytes.
constexpr std::size_t kMessageOverhead = 256;
// What one of its params costs, in the map that it ends up in.
constexpr std::size_t kParamOverhead = 128;

// Ids of requests for which a thread waits are odd, so that a reply that comes too late is told from one
// that belongs to an asynchronous request. Only the requester reads this out of the id.
constexpr bool IsWaitingId(std::uint64_t id) {
  return (id & 1) != 0;
}

struct Unzeroed {
  // Not "= default", which would zero it.
  Unzeroed() {}  // NOLINT(modernize-use-equals-default)
  std::array<char, kReadBuffer> bytes;
};

char* ReadBuffer() {
  static auto& buffers = *new os::PerThread<Unzeroed>;
  return buffers.Get().bytes.data();
}

// Made when the first link is.
const std::string& ClosedByPeer() {
  static const std::string& text = *new std::string("the connection was closed");
  return text;
}

}  // namespace

// Counts a message as worked on until the last copy of its record is gone.
class Link::Lease {
 public:
  Lease(std::weak_ptr<Link> link, std::size_t bytes) : link_(std::move(link)), bytes_(bytes) {}
  ~Lease() {
    if (const auto link = link_.lock()) link->ReturnLease(bytes_);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

 private:
  const std::weak_ptr<Link> link_;
  const std::size_t bytes_;
};

// What one turn of reading finds.
class Link::Sink final : public FrameSink {
 public:
  explicit Sink(Link& link) : link_(link) {}
  void OnControlFrame(const FrameHeader& header, std::string_view payload) override {
    link_.HandleControl(header, payload, *this);
  }
  void OnMessage(InboundMessage&& message) override { link_.HandleMessage(std::move(message), *this); }

  WorkList work;
  bool hold = false;  // nothing more is to be read before Continue
  bool goodbye = false;
  int error = kPeerGone;
  std::string reason;  // empty when it was just closed

 private:
  Link& link_;
};

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

// --- sending ---

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

// Reads for everybody until the own reply is there or time is over, and writes what is left of the queue.
int Link::Lead(Waiter& waiter, IoLoop::Clock::time_point deadline, bool writes) {
  if (writes) BoundStall();
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - IoLoop::Clock::now()).count();
    const auto state =
        stream_->Wait(writes, static_cast<int>(std::clamp<std::int64_t>(left, 0, kLeadTurnMs)));
    if (state.writable) writes = WriteOn();
    Sink sink(*this);
    const bool alive = !state.readable || ReadOrFail(sink);
    // Callbacks belong to the loop's threads: the host may hold a lock here that a callback wants.
    Deliver(sink.work);
    if (!alive) {
      CloseInCharge(sink.error, sink.reason);
      return waiter.WaitUntil(deadline);  // over already: all waiters have failed
    }
    CutOffIfFlooding();
    if (waiter.IsDone() || IoLoop::Clock::now() >= deadline) {
      GiveUpCharge();
      if (writes) AskForWritability();
      return waiter.WaitUntil(deadline);
    }
  }
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

bool Link::IsPaused() const {
  const os::MutexLock lock(mutex_);
  return paused_;
}

IoLoop::Clock::time_point Link::StallDeadline() const {
  const auto since = queue_.BlockedSince();
  return since ? *since + std::chrono::milliseconds(options_.stall_ms) : IoLoop::Clock::time_point::max();
}

// --- reading ---

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

void Link::OnReady(bool readable, bool writable) {
  if (writable) {
    {
      const os::MutexLock lock(mutex_);
      want_write_ = false;
    }
    if (WriteOn()) {
      const os::MutexLock lock(mutex_);
      want_write_ = true;
    }
  }
  if (readable && TakeCharge()) {
    Work();
    return;
  }
  const os::MutexLock lock(mutex_);
  if (!in_charge_ || want_write_) ArmLocked();
}

// By the thread in charge.
void Link::Work() {
  const auto self = shared_from_this();
  Sink sink(*this);
  bool alive = ReadOrFail(sink);
  while (sink.hold) {
    {
      const os::MutexLock lock(mutex_);
      if (!std::exchange(continued_, false)) {
        on_hold_ = true;  // still in charge, until Continue
        if (want_write_) ArmLocked();
        return;
      }
    }
    sink.hold = false;
    alive = ReadOrFail(sink);
  }
  if (alive && reader_.IsInLongMessage()) alive = ReadRestOfBody(sink);
  if (!alive) {
    Deliver(sink.work);
    CloseInCharge(sink.error, sink.reason);
    return;
  }
  CutOffIfFlooding();
  GiveUpCharge();
  Deliver(sink.work);
}

// The sender of a long body is about to go on. Waiting for it here spares the way through the poller, which
// would wake another thread for each part.
bool Link::ReadRestOfBody(Sink& sink) {
  const IoLoop::Absence absence(*loop_);
  if (!absence) return true;
  const auto end = IoLoop::Clock::now() + kBodyTurn;
  bool alive = true;
  while (alive && sink.work.empty() && !sink.hold && reader_.IsInLongMessage() &&
         IoLoop::Clock::now() < end) {
    if (!stream_->Wait(false, kBodyWaitMs).readable) break;
    alive = ReadOrFail(sink);
  }
  return alive;
}

// Memory may be short for what a peer sends; that is this peer's loss alone.
bool Link::ReadOrFail(Sink& sink) {
  try {
    return ReadSome(sink);
  } catch (const std::exception& error) {
    sink.error = kFailed;
    try {
      sink.reason = std::string("reading from it failed: ") + error.what();
    } catch (const std::exception&) {
      sink.reason = kNoMemory;
    }
    SendNotice(FrameType::kGoodbye, 0, sink.error, sink.reason);  // not even that, when memory is that short
    return false;
  }
}

// False when the connection has ended; sink has the reason.
bool Link::ReadSome(Sink& sink) {
  for (std::size_t total = 0; total < kReadTurn;) {
    if (cut_off_.load(std::memory_order_relaxed)) return false;
    char* const buffer = ReadBuffer();
    const bool handshake = !IsOpen();
    const os::MutableBuffer rest{buffer,
                                 handshake ? std::min(reader_.NeededForFrame(), kReadBuffer) : kReadBuffer};
    std::size_t room = rest.size;
    std::size_t in_place = 0;
    os::IoResult result{os::IoStatus::kWouldBlock};
    const auto read_to_place = [&](FrameReader::Place place) {
      // What is behind the place has to be copied, so not much of it.
      const os::MutableBuffer buffers[] = {{place.data, place.size}, {buffer, kBehindPlace}};
      room = place.size + kBehindPlace;
      result = stream_->Read(buffers, 2);
      if (result.status == os::IoStatus::kDone) in_place = std::min(result.bytes, place.size);
      return in_place;
    };
    if (handshake || !reader_.ReadToPlace(read_to_place, sink)) result = stream_->Read(&rest, 1);
    if (result.status != os::IoStatus::kDone) return result.status == os::IoStatus::kWouldBlock;
    if (!reader_.Feed({buffer, result.bytes - in_place}, sink)) return SayGoodbye(sink);
    if (sink.goodbye) return false;
    if (sink.hold) return true;
    total += result.bytes;
    // What was not filled was all there was; the poller says when there is more.
    if (!handshake && result.bytes < room) return true;
  }
  return true;
}

// The peer broke the rules: it is told, and goes.
bool Link::SayGoodbye(Sink& sink) {
  sink.error = reader_.violation_code();
  sink.reason = reader_.violation();
  SendNotice(FrameType::kGoodbye, 0, sink.error, sink.reason);
  return false;
}

void Link::HandleControl(const FrameHeader& header, std::string_view payload, Sink& sink) {
  switch (header.type) {
    case FrameType::kPing:
      SendControl(FrameType::kPong);
      return;
    case FrameType::kPong:
      owner_.OnPong(*this);
      return;
    case FrameType::kCancel:
      return;  // the reply will be dropped over there; nothing here knows how to end a callback
    case FrameType::kUndeliverable:
      pending_.Fail(header.message_id, kRefused);
      return;
    case FrameType::kGoodbye: {
      Notice notice;
      if (DecodeNotice(notice, payload)) {
        sink.error = notice.code == kOk ? static_cast<int>(kPeerGone) : notice.code;
        sink.reason = "the other side said: " + notice.reason;
      }
      sink.goodbye = true;
      return;
    }
    default:
      switch (owner_.OnHandshake(*this, header, payload)) {
        case HandshakeStep::kReadOn:
          return;
        case HandshakeStep::kHold:
          sink.hold = true;
          return;
        case HandshakeStep::kClose:
          sink.goodbye = true;
          return;
      }
  }
}

void Link::HandleMessage(InboundMessage&& message, Sink& sink) {
  if (message.type == FrameType::kReply) {
    if (pending_.Complete(std::move(message))) return;
    // Nobody has taken it, so that it is whole.
    if (IsWaitingId(message.id)) {  // NOLINT(bugprone-use-after-move)
      owner_.OnLateReply(*this);
      return;
    }
  }
  std::size_t bytes = message.body.size() + kMessageOverhead;
  for (const auto& [key, value] : message.params) bytes += key.size() + value.size() + kParamOverhead;
  inbound_bytes_.fetch_add(bytes, std::memory_order_relaxed);
  auto lease = std::make_shared<const Lease>(weak_from_this(), bytes);
  if (auto work = owner_.OnMessage(*this, std::move(message), std::move(lease))) {
    sink.work.push_back(std::move(work));
  }
}

void Link::Deliver(WorkList& work) noexcept {
  if (work.empty()) return;
  if (!delivering_.load(std::memory_order_acquire)) {
    const os::MutexLock lock(mutex_);
    if (!delivering_.load(std::memory_order_relaxed)) {
      kept_.splice(kept_.end(), work);
      return;
    }
  }
  loop_->Post(work);
}

void Link::StartDelivery() {
  WorkList kept;  // destroyed unlocked when the loop takes nothing
  const os::MutexLock lock(mutex_);
  kept.swap(kept_);
  loop_->Post(kept);
  delivering_.store(true, std::memory_order_release);  // nobody overtakes what was kept
}

// A peer that goes on although it is not read from any more but for replies is not worth waiting for.
void Link::CutOffIfFlooding() {
  const std::size_t bytes = inbound_bytes_.load(std::memory_order_relaxed);
  if (bytes <= 4 * options_.max_inbound_bytes) return;
  char reason[80];
  std::snprintf(reason, sizeof reason, "it sends more than is worked on: %zu bytes", bytes);
  CutOff(kQueueFull, reason);
}

bool Link::MayReadMore() {
  if (inbound_bytes_.load(std::memory_order_relaxed) <= options_.max_inbound_bytes) return true;
  // Replies come on the same connection: while somebody waits for one, it is read on.
  if (!pending_.empty()) return true;
  TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag,
           "peer [%s] sends faster than its messages are worked on: not read from until less than %zu bytes "
           "are left",
           peer_name_.c_str(), options_.max_inbound_bytes / 2);
  return false;
}

void Link::ReturnLease(std::size_t bytes) {
  const std::size_t before = inbound_bytes_.fetch_sub(bytes, std::memory_order_relaxed);
  const std::size_t half = options_.max_inbound_bytes / 2;
  if (before < half || before - bytes >= half) return;
  const os::MutexLock lock(mutex_);
  if (std::exchange(paused_, false) && !in_charge_) ArmLocked();
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
