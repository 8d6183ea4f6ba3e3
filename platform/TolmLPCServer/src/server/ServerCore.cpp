#include "server/ServerCore.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/StringUtil.h"
#include "TolmLPCServer/LpcError.h"

namespace lpc {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
/// Who comes behind so many waits until others had their turn: those that come and go need not let up.
constexpr int kAcceptTurn = 64;

int FromEndpointError(os::EndpointError error) {
  switch (error) {
    case os::EndpointError::kNone:
      return kOk;
    case os::EndpointError::kNameInvalid:
      return kEndpointNameInvalid;
    case os::EndpointError::kInUse:
      return kEndpointInUse;
    default:
      return kEndpointFailed;
  }
}

}  // namespace

// Waits for connections and hands them to the core.
class ServerCore::Acceptor final : public wire::IoHandler {
 public:
  Acceptor(std::weak_ptr<ServerCore> core, std::unique_ptr<os::Listener> listens)
      : listener(std::move(listens)), core_(std::move(core)) {}
  void OnReady(bool /*readable*/, bool /*writable*/) override {
    if (const auto core = core_.lock()) core->AcceptAll();
  }

  const std::unique_ptr<os::Listener> listener;
  std::uint64_t token = 0;

 private:
  const std::weak_ptr<ServerCore> core_;
};

// One inbound record on its way to the callback.
class ServerCore::DeliverTask final : public Tolm::Base::CTask {
 public:
  DeliverTask(std::shared_ptr<ServerCore> core, std::weak_ptr<wire::Link> from, tag_LPCCallBackData&& data)
      : core_(std::move(core)), from_(std::move(from)), data_(std::move(data)) {}
  void Run() override {
    if (core_->deliver_(data_)) return;
    core_->undelivered_.fetch_add(1, std::memory_order_relaxed);
    const auto link = from_.lock();
    if (link && data_.need_reply) {
      link->SendNotice(wire::FrameType::kUndeliverable, data_.msg_id, kRefused, "nobody takes messages here");
    }
  }

 private:
  const std::shared_ptr<ServerCore> core_;
  const std::weak_ptr<wire::Link> from_;
  tag_LPCCallBackData data_;
};

ServerCore::ServerCore(os::LocalTransport& transport, const Options& options, Deliver deliver)
    : transport_(transport), options_(options), deliver_(std::move(deliver)) {}

ServerCore::~ServerCore() {
  if (loop_ != nullptr && !stopping_.load()) Stop();
}

// What was made before something failed has threads already, perhaps, and they deliver.
int ServerCore::Start(const std::string& name) noexcept {
  try {
    return StartOrThrow(name);
  } catch (const std::exception& error) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot listen as [%s]: %s", name.c_str(), error.what());
    Stop();
    return kFailed;
  }
}

int ServerCore::StartOrThrow(const std::string& name) {
  auto listening = transport_.Listen(name);
  if (!listening.value) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot listen as [%s]: %s", name.c_str(),
             listening.message.c_str());
    return FromEndpointError(listening.error);
  }
  auto poller = transport_.CreatePoller();
  if (!poller) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot listen as [%s]: no room for a poller", name.c_str());
    return kEndpointFailed;
  }
  const std::weak_ptr<ServerCore> self = weak_from_this();
  loop_ = std::make_shared<wire::IoLoop>(std::move(poller), options_, "LpcServer", [self](TimePoint now) {
    const auto core = self.lock();
    return core ? core->Housekeeping(now) : TimePoint::max();
  });
  started_.store(true, std::memory_order_release);
  acceptor_ = std::make_shared<Acceptor>(self, std::move(listening.value));
  acceptor_->token = loop_->Register(acceptor_);
  if (!loop_->Start() || !loop_->Arm(*acceptor_->listener, acceptor_->token, os::Poller::kRead)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot listen as [%s]: no threads", name.c_str());
    Stop();
    return kEndpointFailed;
  }
  return kOk;
}

void ServerCore::EndWaitsSoon() {
  if (!started_.load(std::memory_order_acquire)) return;
  const TimePoint at = wire::IoLoop::Clock::now() + std::chrono::milliseconds(options_.stop_wait_ms);
  {
    const os::MutexLock lock(half_open_mutex_);
    end_waits_at_ = std::min(end_waits_at_, at);
  }
  loop_->RunHousekeepingBy(at);
}

void ServerCore::Stop() noexcept {
  stopping_.store(true);
  if (!loop_) return;
  // First whoever waits for an answer: they may be callbacks that the loop waits for.
  for (const auto& link : peers_.AllForStop()) {
    link->SendNotice(wire::FrameType::kGoodbye, 0, kOk, "the frame stops");
    link->FailSenders(kPeerGone);
    link->CutOff(kPeerGone, "this end stops");
  }
  loop_->Stop();
  for (const auto& [id, link] : peers_.Clear()) link->Abandon();
  std::map<const wire::Link*, HalfOpen> half_open;
  std::shared_ptr<Acceptor> acceptor;  // of the first of several that stop
  {
    const os::MutexLock lock(half_open_mutex_);
    half_open.swap(half_open_);
    acceptor.swap(acceptor_);
  }
  for (const auto& [key, entry] : half_open) entry.link->Abandon();
  if (acceptor) loop_->Unregister(*acceptor->listener, acceptor->token);
}

// --- connections ---

void ServerCore::AcceptAll() {
  try {
    for (int turn = 0; turn < kAcceptTurn && !stopping_; ++turn) {
      auto accepted = acceptor_->listener->Accept();
      if (accepted.stream) {
        Accept(std::move(accepted.stream));
        continue;
      }
      if (accepted.status == os::IoStatus::kFailed && !accepted.retry) {
        ListenFailed(accepted.system_error);
        return;
      }
      if (accepted.status != os::IoStatus::kFailed) {
        accepting_is_short_ = false;
        break;
      }
      PauseAccepting(accepted.system_error);
      return;
    }
  } catch (const std::exception&) {
    // That connection is lost; who waits behind it is looked for again.
    PauseAccepting(ENOMEM);
    return;
  }
  if (!stopping_) loop_->Arm(*acceptor_->listener, acceptor_->token, os::Poller::kRead);
}

// Said once in a shortage, which is over when nobody waits any more.
void ServerCore::PauseAccepting(int system_error) {
  if (!accepting_is_short_.exchange(true)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot accept a connection for now, system error %d",
             system_error);
  }
  const os::MutexLock lock(half_open_mutex_);
  accept_again_ = wire::IoLoop::Clock::now() + kAcceptPause;
  loop_->RunHousekeepingBy(accept_again_);
}

void ServerCore::ListenFailed(int system_error) {
  TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "no further connection can be accepted, system error %d",
           system_error);
  tag_LPCCallBackData data;
  data.src_id = kFrameId;
  data.dst_id = kFrameId;
  data.body = R"({"method":"serverListenFailed","errorCode":")" + std::to_string(system_error) +
              R"(","errorModule":"TolmLPCServer"})";
  loop_->Post(
      std::make_unique<DeliverTask>(shared_from_this(), std::weak_ptr<wire::Link>(), std::move(data)));
}

ServerCore::TimePoint ServerCore::Housekeeping(TimePoint now) {
  TimePoint next = TimePoint::max();
  bool accept = false;
  bool end_waits = false;
  std::vector<std::shared_ptr<wire::Link>> too_slow;
  std::vector<HalfOpen> contenders;
  {
    const os::MutexLock lock(half_open_mutex_);
    accept = now >= accept_again_;
    if (!accept) next = accept_again_;
    end_waits = now >= end_waits_at_;
    if (!end_waits) next = std::min(next, end_waits_at_);
    // First what may fail, and is then tried again: nobody is refused without a word.
    for (auto& [key, entry] : half_open_) {
      if (!entry.refused && now >= entry.deadline && !entry.id.empty()) contenders.push_back(entry);
    }
    too_slow.reserve(half_open_.size());
    for (auto& [key, entry] : half_open_) {
      if (entry.refused) continue;
      if (now >= entry.deadline) {
        if (entry.id.empty()) {
          entry.refused = true;
          too_slow.push_back(entry.link);
          continue;
        }
        entry.deadline = now + std::chrono::milliseconds(options_.ping_ms);
      }
      next = std::min(next, entry.deadline);
    }
  }
  for (const auto& link : too_slow) TellRefused(*link, kTimeOut, "its handshake took too long");
  for (const HalfOpen& contender : contenders) {
    const auto holder = contender.holder.lock();
    if (holder && holder->IsPaused()) {
      // It may have answered, but nobody listens to it: it gets the benefit of the doubt.
      RefuseForHolder(*holder);
      continue;
    }
    if (holder) holder->CutOff(kTimeOut, "it did not answer a ping, and another process asks for its id");
    if (TryToAdmit(contender.link, contender.id)) contender.link->Continue();
  }
  // Before the walk: a peer that is not in the table yet finds it set.
  if (end_waits) waits_ended_.store(true);
  for (const auto& link : peers_.All()) {
    if (end_waits) link->FailWaiters(kPeerGone);
    const TimePoint deadline = link->StallDeadline();
    if (now < deadline) {
      next = std::min(next, deadline);
    } else {
      link->CutOff(kTimeOut,
                   "it took nothing of what was sent to it for " + std::to_string(options_.stall_ms) + " ms");
    }
  }
  if (end_waits) {
    const os::MutexLock lock(half_open_mutex_);
    end_waits_at_ = TimePoint::max();
  }
  if (accept) {
    {
      const os::MutexLock lock(half_open_mutex_);
      accept_again_ = TimePoint::max();
    }
    AcceptAll();
  }
  return next;
}

// --- messages ---

std::unique_ptr<Tolm::Base::CTask> ServerCore::OnMessage(wire::Link& link, wire::InboundMessage&& message,
                                                         std::shared_ptr<const void> lease) {
  tag_LPCCallBackData data;
  data.msg_id = message.id;
  data.is_reply = message.type == wire::FrameType::kReply;
  data.need_reply = message.type == wire::FrameType::kRequest;
  data.src_id = link.peer_name();  // and not what the message says
  data.dst_id = std::move(message.dst_id);
  data.params = std::move(message.params);
  data.body = std::move(message.body);
  data.lease = std::move(lease);
  return std::make_unique<DeliverTask>(shared_from_this(), link.weak_from_this(), std::move(data));
}

std::uint64_t ServerCore::NextId(bool waiting) {
  return next_id_.fetch_add(1, std::memory_order_relaxed) * 2 + (waiting ? 1 : 0);
}

std::uint64_t ServerCore::Send(const tag_LPCRequestData& request, wire::OutgoingBody body, int& error) {
  const auto link = peers_.Find(request.dst_id);
  if (!link) {
    error = kNoSuchPeer;
    return 0;
  }
  wire::OutgoingMessage message;
  message.type = wire::FrameType::kRequest;
  message.id = NextId(false);
  message.dst_id = request.dst_id;
  message.src_id = kFrameId;
  message.params = &request.params;
  message.body = body;
  error = link->Send(message);
  return error == kOk ? message.id : 0;
}

int ServerCore::SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request,
                            wire::OutgoingBody body, const std::string& url, int time_out) {
  const auto link = peers_.Find(request.dst_id);
  if (!link) return kNoSuchPeer;
  wire::OutgoingMessage message;
  message.type = wire::FrameType::kRequest;
  message.flags = wire::kFlagWaiting;
  message.id = NextId(true);
  message.time_out_ms = static_cast<std::uint32_t>(std::max(0, time_out));
  message.dst_id = request.dst_id;
  message.src_id = kFrameId;
  message.params = &request.params;
  message.body = body;
  wire::InboundMessage reply;
  const int error = link->SendAndWait(message, time_out, reply);
  if (error != kOk) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, kTag, "no answer of peer [%s] for url [%s]: %s",
             request.dst_id.c_str(), Tolm::Base::StringUtil::MaskSessionIds(url).c_str(), ErrorText(error));
    return error;
  }
  response.src_id = link->peer_name();
  response.params = std::move(reply.params);
  response.body = std::move(reply.body);
  return kOk;
}

int ServerCore::Reply(const tag_LPCReplyData& reply, wire::OutgoingBody body) {
  const auto link = peers_.Find(reply.dst_id);
  if (!link) return kNoSuchPeer;
  wire::OutgoingMessage message;
  message.type = wire::FrameType::kReply;
  message.id = reply.msg_id;
  message.dst_id = reply.dst_id;
  message.src_id = kFrameId;
  message.params = &reply.params;
  message.body = body;
  return link->Send(message);
}

int ServerCore::Notify(const tag_LPCNotifyData& notify, wire::OutgoingBody body) {
  const auto link = peers_.Find(notify.dst_id);
  if (!link) return kNoSuchPeer;
  wire::OutgoingMessage message;
  message.dst_id = notify.dst_id;
  message.src_id = kFrameId;
  message.params = &notify.params;
  message.body = body;
  return link->Send(message);
}

Statistics ServerCore::GetStatistics() const {
  Statistics statistics;
  statistics.peers = peers_.CountOpen();
  statistics.connections = connections_.load(std::memory_order_relaxed);
  statistics.refused = refused_.load(std::memory_order_relaxed);
  statistics.cut_off = cut_off_.load(std::memory_order_relaxed);
  statistics.late_replies = late_replies_.load(std::memory_order_relaxed);
  statistics.undelivered = undelivered_.load(std::memory_order_relaxed);
  return statistics;
}

}  // namespace lpc
