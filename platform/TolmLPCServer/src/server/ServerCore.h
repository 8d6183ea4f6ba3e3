#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TolmLPCServer/LpcOptions.h"
#include "TolmLPCServer/LpcRecords.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"
#include "server/PeerTable.h"
#include "wire/FirstId.h"
#include "wire/IoLoop.h"
#include "wire/Link.h"

namespace lpc {

/// The host's own id, in messages to and from peers.
inline constexpr char kFrameId[] = "0";

/// One listening endpoint, from StartListen to StopListen, with its peers. lpcserver puts the one
/// endpoint of the process in front of it; tests make their own, over any transport.
///
/// What happens to a connection:
///
///   accepted ──► half open ──HELLO──► checked ──► id free ──► WELCOME, "connected", read on
///                    │                   │            └─ id taken: the holder is pinged; if it answers
///                    │                   │               the newcomer is refused, else the holder goes,
///                    │                   │               and the id is free when that has been delivered
///                    └─ time is up       └─ refused with a reason
class ServerCore final : public wire::LinkOwner, public std::enable_shared_from_this<ServerCore> {
 public:
  /// `deliver` is called for every inbound record on threads of the loop, and may take it; false says that
  /// nobody was there to do so.
  using Deliver = std::function<bool(tag_LPCCallBackData& data)>;

  ServerCore(os::LocalTransport& transport, const Options& options, Deliver deliver);
  ~ServerCore();

  /// kOk or the error.
  int Start(const std::string& name) noexcept;
  /// As the function of lpcserver.
  void EndWaitsSoon();
  /// As lpcserver::StopListen. The core cannot be started again.
  void Stop() noexcept;
  /// Whether its threads have ended.
  bool HasEnded() const { return !started_.load(std::memory_order_acquire) || loop_->ThreadCount() == 0; }
  bool IsOwnThread() const { return started_.load(std::memory_order_acquire) && loop_->IsOwnThread(); }

  // The records' own bodies are not looked at.

  /// The id of the request, or 0 with the reason in `error`.
  std::uint64_t Send(const tag_LPCRequestData& request, wire::OutgoingBody body, int& error);
  int SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request, wire::OutgoingBody body,
                  const std::string& url, int time_out);
  int Reply(const tag_LPCReplyData& reply, wire::OutgoingBody body);
  int Notify(const tag_LPCNotifyData& notify, wire::OutgoingBody body);

  Statistics GetStatistics() const;

  // wire::LinkOwner
  wire::HandshakeStep OnHandshake(wire::Link& link, const wire::FrameHeader& header,
                                  std::string_view payload) override;
  std::unique_ptr<Tolm::Base::CTask> OnMessage(wire::Link& link, wire::InboundMessage&& message,
                                               std::shared_ptr<const void> lease) override;
  void OnPong(wire::Link& link) override;
  void OnLateReply(wire::Link& link) override;
  void OnClosed(wire::Link& link, bool was_open, int error, const std::string& reason) noexcept override;

 private:
  class Acceptor;
  class DeliverTask;
  class StatusTask;
  using TimePoint = wire::IoLoop::Clock::time_point;

  // A connection without a place in the table yet.
  struct HalfOpen {
    std::shared_ptr<wire::Link> link;
    TimePoint deadline;
    std::string id;                    // once it said HELLO
    std::weak_ptr<wire::Link> holder;  // who has this id
    bool refused = false;              // and about to end
  };

  int StartOrThrow(const std::string& name);
  void AcceptAll();
  void PauseAccepting(int system_error) TOLM_EXCLUDES(half_open_mutex_);
  void Accept(std::unique_ptr<os::Stream> stream);
  bool TryToAdmit(const std::shared_ptr<wire::Link>& link, const std::string& id)
      TOLM_EXCLUDES(half_open_mutex_);
  struct Admission;
  void Admit(const std::shared_ptr<wire::Link>& link, Admission&& admission) noexcept;
  bool IsToBeTold(wire::WorkList& event) noexcept;
  void Refuse(wire::Link& link, int error, std::string_view reason) noexcept TOLM_EXCLUDES(half_open_mutex_);
  void TellRefused(wire::Link& link, int error, std::string_view reason) noexcept;
  void NoteRefused(const os::PeerIdentity& peer, std::string_view reason) noexcept;
  TimePoint Housekeeping(TimePoint now);
  void ListenFailed(int system_error);
  void Forget(const std::string& id, const wire::Link* link) TOLM_EXCLUDES(half_open_mutex_);
  void RefuseForHolder(const wire::Link& holder) TOLM_EXCLUDES(half_open_mutex_);
  std::uint64_t NextId(bool waiting);

  os::LocalTransport& transport_;
  const Options options_;
  const Deliver deliver_;
  std::shared_ptr<wire::IoLoop> loop_;  // set by Start
  std::shared_ptr<Acceptor> acceptor_;  // set by Start
  PeerTable peers_;

  std::atomic<std::uint64_t> next_id_{wire::FirstId()};
  std::atomic<bool> started_{false};  // loop_ is there
  std::atomic<bool> stopping_{false};
  std::atomic<bool> waits_ended_{false};
  std::atomic<std::uint64_t> connections_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<std::uint64_t> cut_off_{0};
  std::atomic<std::uint64_t> late_replies_{0};
  std::atomic<std::uint64_t> undelivered_{0};
  std::atomic<bool> accepting_is_short_{false};

  os::Mutex half_open_mutex_;
  std::map<const wire::Link*, HalfOpen> half_open_ TOLM_GUARDED_BY(half_open_mutex_);
  TimePoint accept_again_ TOLM_GUARDED_BY(half_open_mutex_) = TimePoint::max();  // after a shortage
  TimePoint end_waits_at_ TOLM_GUARDED_BY(half_open_mutex_) = TimePoint::max();
};

}  // namespace lpc
