#include "wire/SendQueue.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

namespace lpc::wire {
namespace {

// One system call gathers at most this many pieces, which also bounds the messages taken along at once.
constexpr std::size_t kMaxPieces = 48;
// After so many calls a sender has done enough for others, and the I/O threads go on.
constexpr int kWriteTurn = 32;
constexpr std::size_t kMaxControlBytes = 1u << 20;
// Messages up to this size are gathered, until there are so many bytes of them.
constexpr std::size_t kGatheredFrame = 2u << 10;
constexpr std::size_t kGatheredBytes = 32u << 10;

}  // namespace

// One message, one control frame, or a batch of small messages that are frames already, and how much of it
// has been written. The header of the frame that is under way stands in front of the head, in room kept for
// it.
class SendQueue::Item {
 public:
  explicit Item(const OutgoingMessage& message)
      : head_(EncodeHead(message, kHeaderSize)),
        body_(message.body.bytes),
        body_owner_(message.body.owner),
        payload_left_(head_.size() - kHeaderSize + body_.size()),
        chunked_(payload_left_ > kChunkPayload) {
    header_.type = message.type;
    header_.flags = message.flags;
    header_.message_id = message.id;
    BeginFrame();
  }

  Item(FrameType type, std::uint64_t message_id, const std::string& payload)
      : head_(std::string(kHeaderSize, '\0') + payload),
        payload_left_(payload.size()),
        chunked_(false),
        control_(true) {
    header_.type = type;
    header_.message_id = message_id;
    BeginFrame();
  }

  /// A batch.
  explicit Item(std::size_t room) : chunked_(false), batch_(true) {
    head_.reserve(room);
    position_ = 0;
    header_left_ = 0;
  }
  /// To a batch that nobody writes yet; gives by how many bytes it has grown.
  std::size_t Append(const OutgoingMessage& message) {
    const std::size_t before = head_.size();
    AppendFrame(head_, message);
    return head_.size() - before;
  }

  /// What it costs to keep it.
  std::size_t size() const { return sizeof(Item) + head_.size() + body_.size(); }
  bool chunked() const { return chunked_; }
  bool control() const { return control_; }
  bool done() const {
    return batch_ ? position_ == head_.size() : header_left_ == 0 && frame_left_ == 0 && payload_left_ == 0;
  }
  /// Whether more frames follow the one that is under way.
  bool has_more_frames() const { return payload_left_ > 0; }
  bool at_frame_start() const { return header_left_ == kHeaderSize; }
  /// Whether nothing of it has been written.
  bool untouched() const { return at_frame_start() && position_ == kHeaderSize; }

  /// Which of the messages in chunks this is; before anything of it is written.
  void SetStream(std::uint16_t stream) {
    header_.stream = stream;
    header_bytes_ = EncodeHeader(header_);
  }

  /// Makes the bytes its own, so that the sender may go. Not to be moved afterwards.
  void Own() {
    if (body_.empty()) return;
    if (body_owner_ != nullptr) {
      owned_ = std::move(*body_owner_);
    } else {
      owned_.assign(body_);
    }
    body_ = owned_;
    body_owner_ = nullptr;
  }

  /// The pieces of the current frame that have not been written.
  std::size_t Pieces(os::ConstBuffer* pieces) {
    std::size_t count = 0;
    const auto add = [&](const char* data, std::size_t size) {
      if (size > 0) pieces[count++] = {data, size};
    };
    if (batch_) {
      add(head_.data() + position_, head_.size() - position_);
      return count;
    }
    std::size_t left = frame_left_;
    // In the first frame header and head are neighbours.
    if (position_ < head_.size() && header_left_ > 0 && position_ == kHeaderSize) {
      const std::size_t part = std::min(left, head_.size() - kHeaderSize);
      std::copy_n(header_bytes_.data(), kHeaderSize, head_.data());
      add(head_.data() + (kHeaderSize - header_left_), header_left_ + part);
      left -= part;
      add(body_.data(), left);
      return count;
    }
    add(header_bytes_.data() + (kHeaderSize - header_left_), header_left_);
    if (position_ < head_.size()) {
      const std::size_t part = std::min(left, head_.size() - position_);
      add(head_.data() + position_, part);
      left -= part;
      add(body_.data(), left);
    } else {
      add(body_.data() + (position_ - head_.size()), left);
    }
    return count;
  }

  /// `bytes` more have been written, all of the current frame; gives what is left of them.
  std::size_t Advance(std::size_t bytes) {
    if (batch_) {
      const std::size_t of_batch = std::min(bytes, head_.size() - position_);
      position_ += of_batch;
      return bytes - of_batch;
    }
    const std::size_t of_header = std::min(bytes, header_left_);
    header_left_ -= of_header;
    bytes -= of_header;
    const std::size_t of_frame = std::min(bytes, frame_left_);
    frame_left_ -= of_frame;
    position_ += of_frame;
    bytes -= of_frame;
    if (header_left_ == 0 && frame_left_ == 0 && payload_left_ > 0) {
      header_.type = FrameType::kChunk;
      BeginFrame();
    }
    return bytes;
  }

 private:
  void BeginFrame() {
    frame_left_ = std::min(payload_left_, kChunkPayload);
    payload_left_ -= frame_left_;
    header_.payload_size = static_cast<std::uint32_t>(frame_left_);
    header_.flags =
        static_cast<std::uint8_t>((header_.flags & ~kFlagMore) | (payload_left_ > 0 ? kFlagMore : 0));
    header_bytes_ = EncodeHeader(header_);
    header_left_ = kHeaderSize;
  }

  std::string head_;  // room for a header, then the message's head; all of a batch
  std::string_view body_;
  std::string* body_owner_ = nullptr;
  std::string owned_;
  FrameHeader header_;
  HeaderBytes header_bytes_{};
  std::size_t header_left_ = 0;         // of the current frame's header
  std::size_t frame_left_ = 0;          // of the current frame's payload
  std::size_t payload_left_ = 0;        // of the message, behind the current frame
  std::size_t position_ = kHeaderSize;  // in head and body together
  bool chunked_;
  bool control_ = false;
  bool batch_ = false;
};

SendQueue::SendQueue(os::Stream& stream, const Options& options) : stream_(stream), options_(options) {}

SendQueue::~SendQueue() = default;

SendQueue::Outcome SendQueue::Send(const OutgoingMessage& message, bool more_follow) {
  if (more_follow && FrameSize(message) <= kGatheredFrame) return Gather(message);
  Item item(message);
  bool direct = false;
  {
    const os::MutexLock lock(mutex_);
    if (closed_) return Outcome::kBroken;
    if (item.chunked()) {
      // 0 means "whole". A number comes round again when its message is long through: so many large
      // messages do not fit into the queue.
      if (++last_stream_ == 0) ++last_stream_;
      item.SetStream(last_stream_);
    }
    direct = !writing_ && !blocked_ && items_.empty();
    if (direct) writing_ = true;
    // Before the body is copied: many who are refused at a time would make many copies.
    if (!direct && !ReserveLocked(item.size())) return Outcome::kFull;
  }
  if (direct) return WriteDirectly(item);
  const std::size_t reserved = item.size();
  try {
    auto kept = std::make_unique<Item>(std::move(item));
    kept->Own();
    os::UniqueLock lock(mutex_);
    return AppendLocked(std::move(kept));
  } catch (const std::bad_alloc&) {
    const os::MutexLock lock(mutex_);
    queued_bytes_ -= reserved;
    throw;
  }
}

bool SendQueue::ReserveLocked(std::size_t bytes) {
  if (queued_bytes_ > 0 && queued_bytes_ + bytes > options_.max_queue_bytes) return false;
  queued_bytes_ += bytes;
  return true;
}

SendQueue::Outcome SendQueue::Gather(const OutgoingMessage& message) {
  os::UniqueLock lock(mutex_);
  if (closed_) return Outcome::kBroken;
  if (queued_bytes_ > options_.max_queue_bytes) return Outcome::kFull;
  const bool is_first = open_batch_ == nullptr;
  if (is_first) {
    items_.push_back(std::make_unique<Item>(kGatheredBytes + kGatheredFrame));
    open_batch_ = items_.back().get();
    queued_bytes_ += open_batch_->size();
  }
  queued_bytes_ += open_batch_->Append(message);
  if (writing_ || blocked_) {
    if (open_batch_->size() >= kGatheredBytes) open_batch_ = nullptr;
    return Outcome::kQueued;
  }
  if (open_batch_->size() < kGatheredBytes) return is_first ? Outcome::kGathered : Outcome::kQueued;
  writing_ = true;
  return WriteLocked();
}

SendQueue::Outcome SendQueue::Flush() {
  os::UniqueLock lock(mutex_);
  if (closed_) return Outcome::kBroken;
  if (writing_ || blocked_ || items_.empty()) return Outcome::kQueued;
  writing_ = true;
  return WriteLocked();
}

SendQueue::Outcome SendQueue::SendControl(FrameType type, std::uint64_t message_id,
                                          const std::string& payload) {
  auto item = std::make_unique<Item>(type, message_id, payload);
  const std::size_t size = item->size();
  os::UniqueLock lock(mutex_);
  if (closed_) return Outcome::kBroken;
  if (control_bytes_ + size > kMaxControlBytes) return Outcome::kFull;
  control_bytes_ += size;
  try {
    return AppendLocked(std::move(item));
  } catch (const std::bad_alloc&) {
    control_bytes_ -= size;
    throw;
  }
}

// What it costs has been counted. Throws only while nothing has changed.
SendQueue::Outcome SendQueue::AppendLocked(std::unique_ptr<Item> item) {
  if (closed_) return Outcome::kBroken;
  items_.push_back(std::move(item));
  open_batch_ = nullptr;  // what comes now stays behind it
  if (writing_ || blocked_) return Outcome::kQueued;
  writing_ = true;
  return WriteLocked();
}

// Only by the thread that writes.
void SendQueue::SetBulk(bool bulk) {
  if (std::exchange(bulk_, bulk) != bulk) stream_.SetBulk(bulk);
}

SendQueue::Outcome SendQueue::WriteDirectly(Item& item) {
  SetBulk(item.chunked());
  for (;;) {
    std::array<os::ConstBuffer, 4> pieces;
    const auto result = stream_.Write(pieces.data(), item.Pieces(pieces.data()));
    if (result.status == os::IoStatus::kDone) item.Advance(result.bytes);
    const bool broken = result.status == os::IoStatus::kClosed || result.status == os::IoStatus::kFailed;
    if (result.status == os::IoStatus::kDone && !item.done() && !item.at_frame_start()) continue;

    os::UniqueLock lock(mutex_);
    // What was written whole was sent, even if the peer has read it and gone by now.
    const bool sent = item.done();
    if (closed_ || broken) return StopWritingLocked(sent ? Outcome::kSent : Outcome::kBroken);
    if (!sent) {
      // The stream is full, or others wait for their turn between two chunks.
      if (result.status == os::IoStatus::kDone && items_.empty()) continue;
      const bool torn = !item.untouched();
      try {
        KeepRestLocked(item);
      } catch (const std::bad_alloc&) {
        return GiveUpRestLocked(torn);
      }
    }
    if (items_.empty()) return StopWritingLocked(Outcome::kSent);
    const Outcome of_the_rest = WriteLocked();
    return sent && of_the_rest == Outcome::kBroken ? Outcome::kSentLast : of_the_rest;
  }
}

void SendQueue::KeepRestLocked(Item& item) {
  items_.push_front(std::make_unique<Item>(std::move(item)));
  try {
    items_.front()->Own();
  } catch (const std::bad_alloc&) {
    items_.pop_front();
    throw;
  }
  queued_bytes_ += items_.front()->size();
}

// There is no memory for what the stream does not take. Others' messages stand behind it in the queue.
SendQueue::Outcome SendQueue::GiveUpRestLocked(bool torn) {
  if (torn) {
    // Nobody may write behind half a message.
    CloseLocked();
    return StopWritingLocked(Outcome::kTorn);
  }
  if (items_.empty()) return StopWritingLocked(Outcome::kNoMemory);
  BlockLocked();
  return Outcome::kNoMemory;
}

// Called with writing_ set by this thread, and gives it up.
SendQueue::Outcome SendQueue::WriteLocked() {
  for (int turn = 0; !closed_; ++turn) {
    if (turn == kWriteTurn) return BlockLocked();
    LetSmallOnesPassLocked();
    std::array<os::ConstBuffer, kMaxPieces + 4> pieces;
    std::size_t count = 0;
    for (const auto& item : items_) {
      count += item->Pieces(pieces.data() + count);
      if (item->has_more_frames() || count > kMaxPieces) break;
    }
    open_batch_ = nullptr;
    const bool bulk = items_.front()->chunked();
    const auto result = [&]() TOLM_REQUIRES(mutex_) {
      const os::MutexUnlock unlocked(mutex_);
      SetBulk(bulk);
      return stream_.Write(pieces.data(), count);
    }();
    if (result.status == os::IoStatus::kWouldBlock) {
      if (closed_) break;
      return BlockLocked();
    }
    if (result.status != os::IoStatus::kDone) break;
    std::size_t bytes = result.bytes;
    while (bytes > 0 && !items_.empty()) {
      if (items_.front()->chunked()) small_ones_passed_ = false;
      bytes = items_.front()->Advance(bytes);
      if (!items_.front()->done()) break;
      (items_.front()->control() ? control_bytes_ : queued_bytes_) -= items_.front()->size();
      items_.pop_front();
    }
    if (items_.empty()) return StopWritingLocked(Outcome::kSent);
  }
  return StopWritingLocked(Outcome::kBroken);
}

// Between two frames of a large message the small ones that have come meanwhile go first, once: those that
// come while they go wait for the next frame, so that it is sent however many they are. Large ones keep
// their order: taking turns they would all be done late.
void SendQueue::LetSmallOnesPassLocked() {
  if (items_.size() < 2 || !items_.front()->chunked() || !items_.front()->at_frame_start()) return;
  if (std::exchange(small_ones_passed_, true)) return;
  std::stable_partition(items_.begin(), items_.end(), [](const auto& item) { return !item->chunked(); });
}

// Gives up writing until the stream is writable.
SendQueue::Outcome SendQueue::BlockLocked() {
  writing_ = false;
  blocked_ = true;
  blocked_since_ = std::chrono::steady_clock::now();
  return Outcome::kBlocked;
}

SendQueue::Outcome SendQueue::StopWritingLocked(Outcome outcome) {
  writing_ = false;
  if (waiters_ > 0) idle_.notify_all();
  return outcome;
}

void SendQueue::WaitUntilSent(std::chrono::steady_clock::time_point deadline) {
  os::UniqueLock lock(mutex_);
  ++waiters_;
  idle_.wait_until(lock, deadline,
                   [this]() TOLM_REQUIRES(mutex_) { return closed_ || (items_.empty() && !writing_); });
  --waiters_;
}

SendQueue::Outcome SendQueue::Resume() {
  os::UniqueLock lock(mutex_);
  if (closed_) return Outcome::kBroken;
  if (!blocked_) return Outcome::kQueued;
  blocked_ = false;
  writing_ = true;
  return WriteLocked();
}

void SendQueue::Close() {
  const os::MutexLock lock(mutex_);
  CloseLocked();
  // A thread that writes uses the items; they go with the queue then.
  if (!writing_) items_.clear();
}

void SendQueue::CloseLocked() {
  closed_ = true;
  blocked_ = false;
  open_batch_ = nullptr;
  idle_.notify_all();
}

std::optional<std::chrono::steady_clock::time_point> SendQueue::BlockedSince() const {
  const os::MutexLock lock(mutex_);
  if (!blocked_) return std::nullopt;
  return blocked_since_;
}

}  // namespace lpc::wire
