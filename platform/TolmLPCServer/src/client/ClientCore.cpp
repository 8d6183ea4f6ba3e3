// The life of a plugin's end: its connections, one after the other, and what comes on them.

#include "client/ClientCore.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>

#include "TolmBase/LogLine.h"

namespace lpcclient {
namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr char kTag[] = "TolmLPCServer";
constexpr char kFrameName[] = "frame";
constexpr int kFlushMs = 1000;

class CallTask final : public Tolm::Base::CTask {
 public:
  explicit CallTask(std::function<void()> call) : call_(std::move(call)) {}
  void Run() override { call_(); }

 private:
  const std::function<void()> call_;
};

}  // namespace

// What a plugin is told when a connection, or an attempt, is over; then the next one is looked for. Made
// before, so that it needs no memory then.
class CLpcClient::Core::EndTask final : public Tolm::Base::CTask {
 public:
  using Tell = std::function<void(int error, const std::string& reason)>;
  /// `tell` is one of the settings of `core`.
  void Say(std::shared_ptr<Core> core, const Tell& tell, int error, const std::string& reason) noexcept {
    core_ = std::move(core);
    tell_ = &tell;
    error_ = error;
    try {
      reason_ = reason;
    } catch (const std::exception&) {
      reason_ = "memory is short";  // needs none of its own
    }
  }
  void Run() override {
    if (!core_) return;
    try {
      if (*tell_) (*tell_)(error_, reason_);
    } catch (...) {
      core_->ScheduleAttempt();
      throw;
    }
    core_->ScheduleAttempt();
  }

 private:
  std::shared_ptr<Core> core_;
  const Tell* tell_ = nullptr;
  int error_ = lpc::kOk;
  std::string reason_;
};

class CLpcClient::Core::MessageTask final : public Tolm::Base::CTask {
 public:
  MessageTask(std::shared_ptr<Core> core, std::weak_ptr<lpc::wire::Link> link, tag_LPCCallBackData&& data,
              const InboundInfo& info)
      : core_(std::move(core)), link_(std::move(link)), data_(std::move(data)), info_(info) {}

  void Run() override {
    if (core_->settings_.on_message) {
      core_->settings_.on_message(std::move(data_), info_);
      return;
    }
    core_->undelivered_.fetch_add(1, std::memory_order_relaxed);
    const auto link = link_.lock();
    if (link && data_.need_reply) {
      link->SendNotice(lpc::wire::FrameType::kUndeliverable, data_.msg_id, lpc::kRefused,
                       "nobody takes messages here");
    }
  }

 private:
  const std::shared_ptr<Core> core_;
  const std::weak_ptr<lpc::wire::Link> link_;
  tag_LPCCallBackData data_;
  const InboundInfo info_;
};

int CLpcClient::Core::Start() noexcept {
  try {
    return StartOrThrow();
  } catch (const std::exception& error) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "starting failed: %s", error.what());
    return lpc::kFailed;
  }
}

int CLpcClient::Core::StartOrThrow() {
  if (!os::IsEndpointName(settings_.endpoint)) return lpc::kEndpointNameInvalid;
  if (!lpc::wire::IsPeerId(settings_.id)) return lpc::kRefused;
  auto poller = transport_.CreatePoller();
  if (!poller) return lpc::kFailed;
  const std::weak_ptr<Core> self = weak_from_this();
  {
    const os::MutexLock lock(mutex_);
    if (state_ != State::kNew) return lpc::kFailed;
    loop_ = std::make_shared<lpc::wire::IoLoop>(std::move(poller), settings_.options, "LpcClient",
                                                [self](TimePoint now) {
                                                  const auto core = self.lock();
                                                  return core ? core->Housekeeping(now) : TimePoint::max();
                                                });
    state_ = State::kRunning;
    pause_ms_ = settings_.reconnect_first_ms;
  }
  if (!loop_->Start()) return lpc::kFailed;
  loop_->RunHousekeepingBy(TimePoint::min());
  return lpc::kOk;
}

void CLpcClient::Core::Stop() noexcept {
  std::shared_ptr<lpc::wire::Link> link;
  {
    const os::MutexLock lock(mutex_);
    if (state_ == State::kNew) state_ = State::kStopped;
    if (!loop_) return;
    state_ = State::kStopped;
    link = link_;
    changed_.notify_all();
  }
  if (link) {
    link->WaitUntilSent(kFlushMs);
    link->SendNotice(lpc::wire::FrameType::kGoodbye, 0, lpc::kOk, "the plugin ends its connection");
    link->FailSenders(lpc::kPeerGone);
    link->CutOff(lpc::kPeerGone, "this end stops");
  }
  loop_->Stop();
  {
    const os::MutexLock lock(mutex_);
    link = std::exchange(link_, nullptr);
  }
  if (link) link->Abandon();
}

bool CLpcClient::Core::WaitConnected(int time_out) const {
  os::UniqueLock lock(mutex_);
  changed_.wait_for(lock, Milliseconds(std::max(0, time_out)), [this]() TOLM_REQUIRES(mutex_) {
    return state_ == State::kStopped || (link_ && link_->IsOpen());
  });
  return state_ == State::kRunning && link_ && link_->IsOpen();
}

bool CLpcClient::Core::IsConnected() const {
  return OpenLink() != nullptr;
}

std::shared_ptr<lpc::wire::Link> CLpcClient::Core::OpenLink() const {
  const os::MutexLock lock(mutex_);
  return state_ == State::kRunning && link_ && link_->IsOpen() ? link_ : nullptr;
}

// --- the connection ---

CLpcClient::Core::TimePoint CLpcClient::Core::Housekeeping(TimePoint now) {
  bool connect = false;
  TimePoint next = TimePoint::max();
  std::shared_ptr<lpc::wire::Link> too_slow;
  std::shared_ptr<lpc::wire::Link> open;
  {
    const os::MutexLock lock(mutex_);
    if (state_ != State::kRunning) return next;
    if (!link_) {
      connect = now >= attempt_at_;
      if (!connect) next = attempt_at_;
    } else if (link_->IsOpen()) {
      open = link_;
    } else if (now >= handshake_until_) {
      too_slow = link_;
    } else {
      next = handshake_until_;
    }
  }
  if (connect) Connect();
  if (too_slow) too_slow->CutOff(lpc::kTimeOut, "the frame did not answer the handshake");
  if (open) {
    const TimePoint deadline = open->StallDeadline();
    if (now < deadline) return deadline;
    open->CutOff(lpc::kTimeOut, "the frame took nothing of what was sent to it");
  }
  return next;
}

void CLpcClient::Core::Connect() {
  auto connected = transport_.Connect(settings_.endpoint);
  if (!connected.value) {
    AttemptFailed(
        connected.error == os::EndpointError::kNobodyListens ? lpc::kNoSuchPeer : lpc::kEndpointFailed,
        connected.message);
    return;
  }
  // In a folder for everybody somebody else could have made our endpoint before the frame did.
  if (!connected.value->Peer().same_user) {
    AttemptFailed(lpc::kRefused, "the endpoint belongs to another user");
    return;
  }
  const auto link =
      std::make_shared<lpc::wire::Link>(std::move(connected.value), loop_, settings_.options, *this);
  lpc::wire::WorkList end;
  end.push_back(std::make_unique<EndTask>());
  link->KeepForEnd(std::move(end));
  lpc::wire::Hello hello;
  hello.id = settings_.id;
  const std::string payload = lpc::wire::EncodeHello(hello);
  const TimePoint until = lpc::wire::IoLoop::Clock::now() + Milliseconds(settings_.options.handshake_ms);
  {
    const os::MutexLock lock(mutex_);
    if (state_ != State::kRunning) return;
    link_ = link;
    handshake_until_ = until;
  }
  link->SendControl(lpc::wire::FrameType::kHello, 0, payload);
  loop_->RunHousekeepingBy(until);
  if (!link->Begin()) OnClosed(*link, false, lpc::kFailed, "the system has no room for the connection");
}

void CLpcClient::Core::AttemptFailed(int error, const std::string& reason) {
  {
    const os::MutexLock lock(mutex_);
    attempt_at_ = TimePoint::max();
  }
  try {
    auto end = std::make_unique<EndTask>();
    end->Say(shared_from_this(), settings_.on_connect_failed, error, reason);
    loop_->Post(std::move(end));
  } catch (const std::exception&) {
    ScheduleAttempt();
  }
}

// The pause doubles up to the cap; jitter keeps many plugins from coming back at the same moment.
void CLpcClient::Core::ScheduleAttempt() noexcept {
  TimePoint at;
  {
    const os::MutexLock lock(mutex_);
    const int spread = std::max(1, pause_ms_ / 2);
    const int pause = pause_ms_ - spread / 2 + static_cast<int>(jitter_() % static_cast<unsigned>(spread));
    pause_ms_ = std::min(settings_.reconnect_cap_ms, pause_ms_ * 2);
    at = attempt_at_ = lpc::wire::IoLoop::Clock::now() + Milliseconds(pause);
  }
  loop_->RunHousekeepingBy(at);
}

lpc::wire::HandshakeStep CLpcClient::Core::OnHandshake(lpc::wire::Link& link,
                                                       const lpc::wire::FrameHeader& header,
                                                       std::string_view payload) {
  if (!link.IsOpen() && header.type == lpc::wire::FrameType::kRefuse) {
    lpc::wire::Notice notice;
    const bool said_why = lpc::wire::DecodeNotice(notice, payload);
    // A refusal is a failure, whatever it says.
    link.CutOff(said_why && notice.code != lpc::kOk ? notice.code : static_cast<int>(lpc::kRefused),
                said_why ? "refused: " + notice.reason : "refused without a reason");
    return lpc::wire::HandshakeStep::kClose;
  }
  lpc::wire::Welcome welcome;
  if (link.IsOpen() || header.type != lpc::wire::FrameType::kWelcome ||
      !lpc::wire::DecodeWelcome(welcome, payload) || welcome.version != lpc::wire::kProtocolVersion) {
    link.CutOff(lpc::kProtocol, "the other side does not speak this protocol");
    return lpc::wire::HandshakeStep::kClose;
  }
  // Before it is open: who hears of the end has heard of the beginning.
  lpc::wire::WorkList connected;
  connected.push_back(
      std::make_unique<CallTask>([self = shared_from_this(), opened = link.shared_from_this()] {
        try {
          if (self->settings_.on_connected) self->settings_.on_connected();
        } catch (...) {
          opened->StartDelivery();
          throw;
        }
        opened->StartDelivery();
      }));
  {
    const os::MutexLock lock(mutex_);
    link.Open(kFrameName, welcome.max_message_bytes);
    pause_ms_ = settings_.reconnect_first_ms;
    handshake_until_ = TimePoint::max();
    changed_.notify_all();
  }
  connections_.fetch_add(1, std::memory_order_relaxed);
  loop_->Post(connected);
  return lpc::wire::HandshakeStep::kReadOn;
}

void CLpcClient::Core::OnClosed(lpc::wire::Link& link, bool was_open, int error,
                                const std::string& reason) noexcept {
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "the connection of [%s] to [%s] ended: %s", settings_.id.c_str(),
           settings_.endpoint.c_str(), reason.c_str());
  {
    const os::MutexLock lock(mutex_);
    if (link_.get() == &link) link_ = nullptr;
    attempt_at_ = TimePoint::max();
    changed_.notify_all();
  }
  // Behind on_connected, if there was one, and the messages.
  auto self = weak_from_this().lock();
  if (!self) return;
  lpc::wire::WorkList end = link.TakeForEnd();
  static_cast<EndTask&>(*end.front())
      .Say(std::move(self), was_open ? settings_.on_disconnected : settings_.on_connect_failed, error,
           reason);
  if (was_open) {
    link.Deliver(end);
  } else {
    loop_->Post(end);
  }
}

std::unique_ptr<Tolm::Base::CTask> CLpcClient::Core::OnMessage(lpc::wire::Link& link,
                                                               lpc::wire::InboundMessage&& message,
                                                               std::shared_ptr<const void> lease) {
  tag_LPCCallBackData data;
  data.msg_id = message.id;
  data.is_reply = message.type == lpc::wire::FrameType::kReply;
  data.need_reply = message.type == lpc::wire::FrameType::kRequest;
  data.src_id = std::move(message.src_id);
  data.dst_id = std::move(message.dst_id);
  data.params = std::move(message.params);
  data.body = std::move(message.body);
  data.lease = std::move(lease);
  InboundInfo info;
  info.sender_waits = (message.flags & lpc::wire::kFlagWaiting) != 0;
  info.time_out_ms = static_cast<int>(std::min<std::uint32_t>(message.time_out_ms, INT32_MAX));
  return std::make_unique<MessageTask>(shared_from_this(), link.weak_from_this(), std::move(data), info);
}

lpc::Statistics CLpcClient::Core::GetStatistics() const {
  lpc::Statistics statistics;
  statistics.peers = IsConnected() ? 1 : 0;
  statistics.connections = connections_.load(std::memory_order_relaxed);
  statistics.late_replies = late_replies_.load(std::memory_order_relaxed);
  statistics.undelivered = undelivered_.load(std::memory_order_relaxed);
  return statistics;
}

}  // namespace lpcclient
