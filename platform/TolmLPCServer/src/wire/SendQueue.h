#pragma once

// What is to be written to one connection: on the sender's thread while the connection takes it, by the
// I/O threads when it does not.

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "TolmLPCServer/LpcOptions.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace lpc::wire {

/// At any time at most one thread writes: whoever finds nobody writing. Others leave their messages in
/// the queue, and the writer takes them along, several in one system call. A large message goes out in
/// chunks, between which small ones pass it. Small messages whose sender says that more follow are gathered,
/// and written when they are many, when somebody else sends, or when Flush is called.
///
/// No lock is held while the stream is written to. All operations may be called from any thread.
class SendQueue {
 public:
  SendQueue(os::Stream& stream, const Options& options);
  ~SendQueue();
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;

  enum class Outcome {
    kSent,      ///< the stream has taken everything that there was
    kQueued,    ///< another thread writes and will take it along
    kBlocked,   ///< the stream takes no more now: call Resume when it is writable again
    kFull,      ///< refused: too much is queued already
    kBroken,    ///< refused: the connection is no more
    kSentLast,  ///< of Send: it was sent, and the connection broke behind it
    kGathered,  ///< of Send: it waits for others, and Flush has to be called soon
    kNoMemory,  ///< of Send: refused, as there is no memory to keep it; call Resume as for kBlocked
    kTorn       ///< of Send: as well, but a part of it was sent: the connection is no more
  };

  /// Throws std::bad_alloc when there is no memory for it; nothing of it is sent then.
  Outcome Send(const OutgoingMessage& message, bool more_follow = false);
  /// Writes what was gathered. kSent, kBlocked or kBroken; kQueued when somebody else does, or will.
  Outcome Flush();
  /// A frame with a short payload. kFull only when very many of these wait, which is a peer's doing that
  /// asks for answers and does not take them.
  Outcome SendControl(FrameType type, std::uint64_t message_id, const std::string& payload);
  /// The stream is writable again. kSent, kBlocked or kBroken; kQueued when there was nothing to resume.
  Outcome Resume();

  /// Drops what is queued and refuses what comes; what a thread writes just now may still go out.
  void Close();
  /// Waits until everything has been taken by the stream, the connection broke, or `deadline` has come.
  void WaitUntilSent(std::chrono::steady_clock::time_point deadline);
  /// Since when the stream has taken nothing although something is to be written.
  std::optional<std::chrono::steady_clock::time_point> BlockedSince() const;

 private:
  class Item;

  Outcome Gather(const OutgoingMessage& message) TOLM_EXCLUDES(mutex_);
  bool ReserveLocked(std::size_t bytes) TOLM_REQUIRES(mutex_);
  Outcome AppendLocked(std::unique_ptr<Item> item) TOLM_REQUIRES(mutex_);
  Outcome WriteLocked() TOLM_REQUIRES(mutex_);
  Outcome WriteDirectly(Item& item) TOLM_EXCLUDES(mutex_);
  void KeepRestLocked(Item& item) TOLM_REQUIRES(mutex_);
  Outcome GiveUpRestLocked(bool torn) TOLM_REQUIRES(mutex_);
  void LetSmallOnesPassLocked() TOLM_REQUIRES(mutex_);
  void SetBulk(bool bulk);
  Outcome BlockLocked() TOLM_REQUIRES(mutex_);
  Outcome StopWritingLocked(Outcome outcome) TOLM_REQUIRES(mutex_);
  void CloseLocked() TOLM_REQUIRES(mutex_);

  os::Stream& stream_;
  const Options& options_;
  bool bulk_ = false;  // of the thread that writes: what the stream was told

  mutable os::Mutex mutex_;
  os::Condition idle_;
  /// Those at the front are changed by the writer alone.
  std::deque<std::unique_ptr<Item>> items_ TOLM_GUARDED_BY(mutex_);
  Item* open_batch_ TOLM_GUARDED_BY(mutex_) = nullptr;     // the last one, while it can take more messages
  std::size_t queued_bytes_ TOLM_GUARDED_BY(mutex_) = 0;   // of messages
  std::size_t control_bytes_ TOLM_GUARDED_BY(mutex_) = 0;  // of control frames
  bool writing_ TOLM_GUARDED_BY(mutex_) = false;           // a thread writes
  bool blocked_ TOLM_GUARDED_BY(mutex_) = false;           // nobody writes, since the stream takes nothing
  bool closed_ TOLM_GUARDED_BY(mutex_) = false;
  /// The large message in front, since its latest frame.
  bool small_ones_passed_ TOLM_GUARDED_BY(mutex_) = false;
  int waiters_ TOLM_GUARDED_BY(mutex_) = 0;
  std::uint16_t last_stream_ TOLM_GUARDED_BY(mutex_) = 0;  // of the messages in chunks
  std::chrono::steady_clock::time_point blocked_since_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace lpc::wire
