#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "EventSink.h"
#include "FrameReader.h"
#include "Outbox.h"
#include "ServerOptions.h"
#include "Socket.h"
#include "UpgradeCheck.h"

namespace Tolm::Net {

/// One client, from accept to the end of its socket. On the server's thread only.
///
///   request ──upgrade──► open ──our close frame──► closing ──┐
///      │                  │                                  ├──► lingering ──► gone
///      └──answered────────┴──peer's close frame, a fault─────┘
///
/// Lingering, the connection is over for everybody: its last bytes leave, and what comes is thrown away.
/// Functions that give bool say whether the socket is still wanted; after false, only OnGone may follow.
class Connection final : private FrameReader::Receiver {
 public:
  using Clock = std::chrono::steady_clock;

  /// What it needs of its server; must outlive it.
  struct Surroundings {
    const ServerOptions& options;
    const std::shared_ptr<Waker>& waker;
    EventSink& sink;
    const HttpServerCallBack& http_callback;
  };

  Connection(const Surroundings& server, const Accepted& accepted);
  ~Connection();

  bool OnBytes(const char* data, std::size_t size);
  /// Sends what there is room for: when there is room, when something was queued, or just to see.
  bool Flush();
  /// Deadlines; to be called now and then while HasDeadline. Says false once.
  bool OnTime(Clock::time_point now);
  bool HasDeadline() const { return !broken_ && (state_ != State::kOpen || blocked_); }
  /// Whether Flush is to be called when the socket has room.
  bool WantsToWrite() const { return blocked_; }
  /// The server stops: sends what there is room for, and a close frame if it can stand there.
  void SayGoodbye();
  /// The socket is closed, or is to be, and nothing that still comes counts.
  void OnGone();

 private:
  enum class State { kRequest, kOpen, kClosing, kLingering };

  // FrameReader::Receiver
  void OnData(int opcode, bool fin, const char* data, std::uint32_t len) override;
  void OnPing(std::string_view payload) override;
  void OnClose(std::uint16_t code) override;
  bool IsOver() const override { return state_ == State::kLingering || server_.waker->IsStopping(); }

  void ReadFrames(const char* data, std::size_t size);
  void ReadRequest(std::string_view head);
  void Upgrade(const UpgradeRequest& request);
  void AnswerPlain(const UpgradeRequest& request);
  void Refuse(std::string_view status, const char* why);
  bool NextFrame();
  void Linger(OutgoingFrame last);
  void End();
  bool IsSameUser() const;
  std::string PeerName() const;

  const Surroundings server_;
  const Accepted accepted_;

  State state_ = State::kRequest;
  bool broken_ = false;
  Clock::time_point deadline_;
  std::string request_;
  FrameReader reader_;
  std::shared_ptr<Outbox> outbox_;  // from the upgrade to the end
  bool owes_close_event_ = false;

  std::deque<OutgoingFrame> urgent_;  // answers, pongs, close frames: before what users send
  OutgoingFrame current_;
  bool current_is_users_ = false;
  bool blocked_ = false;  // something waits for room in the socket
  Clock::time_point stalled_at_;
  bool ended_sending_ = false;
};

}  // namespace Tolm::Net
