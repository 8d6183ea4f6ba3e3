#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "TolmLPCServer/LpcClient.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"
#include "wire/FirstId.h"
#include "wire/IoLoop.h"
#include "wire/Link.h"

namespace lpcclient {

// What an end consists of; its links and its tasks hold it.
//
//   idle ──due──► connecting ──WELCOME──► open ──► (lost, refused, too slow) ──► idle, due after a pause
//
// The pause begins when the owner has been told: it hears of one connection's end before the next one begins.
class CLpcClient::Core final : public lpc::wire::LinkOwner, public std::enable_shared_from_this<Core> {
 public:
  explicit Core(Settings settings)
      : settings_(std::move(settings)),
        transport_(settings_.transport != nullptr ? *settings_.transport : os::SystemTransport()) {}

  int Start() noexcept;
  void Stop() noexcept;
  bool WaitConnected(int time_out) const;
  bool IsConnected() const;

  std::uint64_t SendRequest(const tag_LPCRequestData& request, lpc::wire::OutgoingBody body);
  bool SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request,
                   lpc::wire::OutgoingBody body, int time_out);
  bool Reply(const tag_LPCReplyData& reply, lpc::wire::OutgoingBody body);
  bool Notify(const tag_LPCNotifyData& notify, lpc::wire::OutgoingBody body);
  bool Reject(std::uint64_t msg_id, const std::string& reason);

  lpc::Statistics GetStatistics() const;

  lpc::wire::HandshakeStep OnHandshake(lpc::wire::Link& link, const lpc::wire::FrameHeader& header,
                                       std::string_view payload) override;
  std::unique_ptr<Tolm::Base::CTask> OnMessage(lpc::wire::Link& link, lpc::wire::InboundMessage&& message,
                                               std::shared_ptr<const void> lease) override;
  void OnPong(lpc::wire::Link& /*link*/) override {}
  void OnLateReply(lpc::wire::Link& /*link*/) override { late_replies_.fetch_add(1); }
  void OnClosed(lpc::wire::Link& link, bool was_open, int error, const std::string& reason) noexcept override;

 private:
  class EndTask;
  class MessageTask;
  using TimePoint = lpc::wire::IoLoop::Clock::time_point;
  enum class State { kNew, kRunning, kStopped };

  int StartOrThrow();
  TimePoint Housekeeping(TimePoint now);
  void Connect() TOLM_EXCLUDES(mutex_);
  void ScheduleAttempt() noexcept TOLM_EXCLUDES(mutex_);
  void AttemptFailed(int error, const std::string& reason) TOLM_EXCLUDES(mutex_);
  std::shared_ptr<lpc::wire::Link> OpenLink() const;

  std::uint64_t NextId(bool waiting) {
    return next_id_.fetch_add(1, std::memory_order_relaxed) * 2 + (waiting ? 1 : 0);
  }
  /// Runs `operation` on the open connection and leaves its error.
  template <typename Operation>
  bool Attempt(Operation&& operation);

  const Settings settings_;
  os::LocalTransport& transport_;
  std::shared_ptr<lpc::wire::IoLoop> loop_;  // set by Start
  std::atomic<std::uint64_t> next_id_{lpc::wire::FirstId()};
  std::atomic<std::uint64_t> connections_{0};
  std::atomic<std::uint64_t> late_replies_{0};
  std::atomic<std::uint64_t> undelivered_{0};

  mutable os::Mutex mutex_;
  mutable os::Condition changed_;
  State state_ TOLM_GUARDED_BY(mutex_) = State::kNew;
  std::shared_ptr<lpc::wire::Link> link_ TOLM_GUARDED_BY(mutex_);
  TimePoint attempt_at_ TOLM_GUARDED_BY(mutex_) = TimePoint::min();
  TimePoint handshake_until_ TOLM_GUARDED_BY(mutex_) = TimePoint::max();
  int pause_ms_ TOLM_GUARDED_BY(mutex_) = 0;
  std::minstd_rand jitter_ TOLM_GUARDED_BY(mutex_){std::random_device{}()};
};

}  // namespace lpcclient
