// The half of a link that reads, whoever does so: a thread of the loop, or a sender that waits for its
// answer.

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "os/PerThread.h"
#include "wire/Link.h"

namespace lpc::wire {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr std::size_t kReadBuffer = 64u << 10;
constexpr std::size_t kBehindPlace = 4u << 10;
// A thread in charge gives others a chance after this much.
constexpr std::size_t kReadTurn = 1u << 20;
// So long a thread stays with a body whose sender goes on, and waits for it to do so.
constexpr auto kBodyTurn = std::chrono::milliseconds(50);
constexpr int kBodyWaitMs = 2;
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

}  // namespace lpc::wire
