#pragma once

// One connection, the same at both ends: reading, sending, waiting for replies, and its end.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TolmBase/Task.h"
#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcOptions.h"
#include "TolmLPCServer/LpcRecords.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"
#include "wire/Frame.h"
#include "wire/FrameReader.h"
#include "wire/IoLoop.h"
#include "wire/Message.h"
#include "wire/PendingReplies.h"
#include "wire/SendQueue.h"

namespace lpc::wire {

class Link;

/// What becomes of a link after a handshake frame.
enum class HandshakeStep {
  kReadOn,
  kHold,   ///< nothing is read until Link::Continue
  kClose,  ///< nothing is read any more; OnClosed follows
};

/// What a Link tells its end. Called on the thread that reads, for one link by one thread at a time; must
/// not block and must not call user code (which goes to Link::Deliver).
class LinkOwner {
 public:
  virtual HandshakeStep OnHandshake(Link& link, const FrameHeader& header, std::string_view payload) = 0;
  /// A message for this end: a request, a notification, or a reply that no thread waits for. Makes the
  /// work that will deliver it, or nothing.
  virtual std::unique_ptr<Tolm::Base::CTask> OnMessage(Link& link, InboundMessage&& message,
                                                       std::shared_ptr<const void> lease) = 0;
  virtual void OnPong(Link& link) = 0;
  virtual void OnLateReply(Link& link) = 0;
  /// The connection has ended; nothing is called for this link any more. `was_open` tells whether its
  /// handshake was over; `error` is kPeerGone, or what was done wrong. Needs no memory: what is to be
  /// delivered was made before (Link::KeepForEnd).
  virtual void OnClosed(Link& link, bool was_open, int error, const std::string& reason) noexcept = 0;

 protected:
  ~LinkOwner() = default;
};

/// One thread at a time is "in charge", which means that it may read. Usually that is the thread to which
/// the poller gave the readiness. A sender that waits for its reply takes charge itself when nobody has it,
/// and then waits on the stream alone: the reply wakes it without passing through another thread.
///
///   caller                              loop thread
///   takes charge, sends, waits          waits in the poller, not for this stream
///   reads; its own reply: done          -
///           somebody else's: wakes them -
///           a message: ──────────────►  runs the callback
///   gives charge back ───────────────►  waits for this stream again
class Link final : public IoHandler, public std::enable_shared_from_this<Link> {
 public:
  /// `owner` must outlive the loop's threads.
  Link(std::unique_ptr<os::Stream> stream, std::shared_ptr<IoLoop> loop, const Options& options,
       LinkOwner& owner);
  ~Link();

  /// Begins to read. False when the poller has no room.
  bool Begin();
  /// For a link on hold: reads on. To be called once, from any thread but inside OnHandshake.
  void Continue();
  /// The handshake is done: messages of up to `max_bytes`, which is what the peer takes, may be sent.
  /// Replies are handed to their waiters from now on; everything else is kept until StartDelivery.
  /// `peer_name` is for log lines.
  void Open(std::string peer_name, std::uint64_t max_bytes);
  /// The peer's "connected" event is over: what arrived since Open is delivered, and what comes.
  void StartDelivery();
  /// Queues work that belongs to this connection, in its turn behind what arrived before.
  void Deliver(WorkList& work) noexcept;
  /// Work that the owner will want when the connection ends, be memory as short as it may then. Before Begin,
  /// or inside OnHandshake and while the link is on hold.
  void KeepForEnd(WorkList work) { for_end_ = std::move(work); }
  /// Inside OnClosed: what was kept.
  WorkList TakeForEnd() { return std::move(for_end_); }
  /// Since Open, and until the end of the connection.
  bool IsOpen() const { return open_.load(std::memory_order_acquire); }

  /// kOk, kMessageTooLarge, kQueueFull or kPeerGone.
  int Send(const OutgoingMessage& message);
  /// Sends a request and waits. kOk with the reply in `reply`, or the error.
  int SendAndWait(const OutgoingMessage& request, int time_out_ms, InboundMessage& reply);
  /// These two cut the peer off when there is no memory for what it has to be told.
  void SendControl(FrameType type, std::uint64_t message_id = 0, const std::string& payload = {}) noexcept
      TOLM_EXCLUDES(mutex_);
  void SendNotice(FrameType type, std::uint64_t message_id, int code, std::string_view reason) noexcept;

  /// Ends the connection: OnClosed follows on a thread of the loop. Any thread, any number of times.
  void CutOff(int error, std::string_view reason) noexcept TOLM_EXCLUDES(mutex_);
  /// Fails whoever waits for a reply, now and later, and refuses to send; for an end that stops.
  void FailSenders(int error);
  /// Fails whoever waits for a reply, now and later; a thread that reads for others notices a moment later.
  void FailWaiters(int error);
  /// Waits until everything that was sent is on its way, for at most `milliseconds`.
  void WaitUntilSent(int milliseconds);
  /// When the loop has stopped: ends the connection without telling the owner.
  void Abandon();

  os::PeerIdentity identity() const { return identity_; }
  const std::string& peer_name() const { return peer_name_; }
  /// Too much of what the peer sent is worked on, so that nothing it says is heard at the moment.
  bool IsPaused() const;
  /// When the peer is to be cut off if it takes nothing until then; max() while it takes what it gets.
  IoLoop::Clock::time_point StallDeadline() const;

  void OnReady(bool readable, bool writable) override;
  void OnFlush() override;

 private:
  class Lease;
  class Sink;
  /// Short enough for a string to hold it without memory of its own.
  static constexpr char kNoMemory[] = "memory is short";

  bool TakeCharge() TOLM_EXCLUDES(mutex_);
  void GiveUpCharge() TOLM_EXCLUDES(mutex_);
  void Work();
  int Send(const OutgoingMessage& message, bool more_follow, bool& blocked);
  bool IsOneOfMany() const;
  int Lead(Waiter& waiter, IoLoop::Clock::time_point deadline, bool writes);
  bool WriteOn();
  bool ReadRestOfBody(Sink& sink);
  bool ReadOrFail(Sink& sink);
  bool ReadSome(Sink& sink);
  bool SayGoodbye(Sink& sink);
  void HandleControl(const FrameHeader& header, std::string_view payload, Sink& sink);
  void HandleMessage(InboundMessage&& message, Sink& sink);
  void AskForWritability() TOLM_EXCLUDES(mutex_);
  void BoundStall();
  void ArmLocked() TOLM_REQUIRES(mutex_);
  void CloseInCharge(int error, std::string& reason) noexcept TOLM_EXCLUDES(mutex_);
  void CutOffIfFlooding();
  bool MayReadMore();
  void ReturnLease(std::size_t bytes) TOLM_EXCLUDES(mutex_);

  const std::unique_ptr<os::Stream> stream_;
  const std::shared_ptr<IoLoop> loop_;
  const Options options_;
  LinkOwner& owner_;
  const os::PeerIdentity identity_;
  SendQueue queue_;
  PendingReplies pending_;
  std::atomic<bool> open_{false};
  std::string peer_name_;       // set before open_
  std::size_t send_limit_ = 0;  // as well
  std::atomic<bool> delivering_{false};
  std::atomic<bool> cut_off_{false};  // for what the peer did: nothing of it is read any more

  std::uint64_t token_ = 0;  // set by Begin
  WorkList for_end_;         // of the thread in charge

  FrameReader reader_;  // of the thread in charge

  std::atomic<std::size_t> inbound_bytes_{0};  // delivered, and still worked on

  mutable os::Mutex mutex_;
  bool in_charge_ TOLM_GUARDED_BY(mutex_) = true;  // a thread is; at first the one that made the link
  bool want_write_ TOLM_GUARDED_BY(mutex_) = false;
  bool paused_ TOLM_GUARDED_BY(mutex_) = false;  // not read from: too much of what it sent is worked on
  bool gone_ TOLM_GUARDED_BY(mutex_) = false;    // no readiness is asked for any more
  // Continue may come from another thread before the one in charge has come back from OnHandshake.
  bool on_hold_ TOLM_GUARDED_BY(mutex_) = false;
  bool continued_ TOLM_GUARDED_BY(mutex_) = false;
  WorkList kept_ TOLM_GUARDED_BY(mutex_);  // until delivering_
  int close_error_ TOLM_GUARDED_BY(mutex_) = kPeerGone;
  std::string close_reason_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace lpc::wire
