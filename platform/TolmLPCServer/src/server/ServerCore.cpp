#include "server/ServerCore.h"

#include <algorithm>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmLPCServer/LpcError.h"

namespace lpc {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr char kFrameId[] = "0";
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

int FromEndpointError(os::EndpointError error) {
  switch (error) {
    case os::EndpointError::kNone: return kOk;
    case os::EndpointError::kNameInvalid: return kEndpointNameInvalid;
    case os::EndpointError::kInUse: return kEndpointInUse;
    default: return kEndpointFailed;
  }
}

// Ids hold no control characters, so two characters are all that JSON wants escaped.
std::string JsonEscaped(const std::string& id) {
  std::string escaped;
  for (const char c : id) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
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
  const tag_LPCCallBackData data_;
};

// The "connected" event, and what must come after it: reading.
class ServerCore::ConnectedTask final : public Tolm::Base::CTask {
 public:
  ConnectedTask(std::shared_ptr<ServerCore> core, std::shared_ptr<wire::Link> link, tag_LPCCallBackData&& data)
      : core_(std::move(core)), link_(std::move(link)), data_(std::move(data)) {}
  void Run() override {
    try {
      if (!core_->deliver_(data_)) core_->undelivered_.fetch_add(1, std::memory_order_relaxed);
    } catch (...) {
      link_->Continue();
      throw;
    }
    link_->Continue();
  }

 private:
  const std::shared_ptr<ServerCore> core_;
  const std::shared_ptr<wire::Link> link_;
  const tag_LPCCallBackData data_;
};

namespace {

tag_LPCCallBackData StatusEvent(const std::string& id, const char* status) {
  tag_LPCCallBackData data;
  data.src_id = id;
  data.dst_id = kFrameId;
  data.body = std::string(R"({"method":"connectionStatusChanged","status":")") + status +
              R"(","componentID":")" + JsonEscaped(id) + "\"}";
  return data;
}

}  // namespace

ServerCore::ServerCore(os::LocalTransport& transport, const Options& options, Deliver deliver)
    : transport_(transport), options_(options), deliver_(std::move(deliver)) {}

ServerCore::~ServerCore() {
  if (loop_ != nullptr && !stopping_.load()) Stop();
}

int ServerCore::Start(const std::string& name) {
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
  acceptor_ = std::make_shared<Acceptor>(self, std::move(listening.value));
  acceptor_->token = loop_->Register(acceptor_);
  if (!loop_->Start() || !loop_->Arm(*acceptor_->listener, acceptor_->token, os::Poller::kRead)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot listen as [%s]: no threads", name.c_str());
    Stop();
    return kEndpointFailed;
  }
  return kOk;
}

void ServerCore::Stop() {
  stopping_.store(true);
  // First whoever waits for an answer: they may be callbacks that the loop waits for.
  for (const auto& link : peers_.All()) {
    link->SendNotice(wire::FrameType::kGoodbye, 0, kOk, "the frame stops");
    link->FailSenders(kPeerGone);
    link->CutOff(kPeerGone, "this end stops");
  }
  loop_->Stop();
  for (const auto& link : peers_.Clear()) link->Abandon();
  std::map<const wire::Link*, HalfOpen> half_open;
  {
    const std::lock_guard lock(half_open_mutex_);
    half_open.swap(half_open_);
  }
  for (const auto& [key, entry] : half_open) entry.link->Abandon();
  loop_->Unregister(*acceptor_->listener, acceptor_->token);
  acceptor_.reset();
}

// --- connections ---

void ServerCore::AcceptAll() {
  for (;;) {
    auto accepted = acceptor_->listener->Accept();
    if (accepted.stream) {
      Accept(std::move(accepted.stream));
      continue;
    }
    if (accepted.status == os::IoStatus::kFailed && !accepted.retry) {
      ListenFailed(accepted.system_error);
      return;
    }
    if (accepted.status == os::IoStatus::kFailed) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "cannot accept a connection for now, system error %d",
               accepted.system_error);
      {
        const std::lock_guard lock(half_open_mutex_);
        accept_again_ = wire::IoLoop::Clock::now() + kAcceptPause;
        loop_->RunHousekeepingBy(accept_again_);
      }
      return;
    }
    loop_->Arm(*acceptor_->listener, acceptor_->token, os::Poller::kRead);
    return;
  }
}

void ServerCore::Accept(std::unique_ptr<os::Stream> stream) {
  const os::PeerIdentity identity = stream->Peer();
  auto link = std::make_shared<wire::Link>(std::move(stream), loop_, options_, *this);
  if (!identity.same_user) {
    Refuse(*link, kRefused, "it belongs to another user");
    return;
  }
  const auto deadline = wire::IoLoop::Clock::now() + std::chrono::milliseconds(options_.handshake_ms);
  bool room = false;
  {
    const std::lock_guard lock(half_open_mutex_);
    room = half_open_.size() < options_.max_half_open && !stopping_.load();
    if (room) half_open_[link.get()] = {link, deadline, {}, {}};
  }
  if (!room) {
    Refuse(*link, kQueueFull, "too many connections have not finished their handshake");
    return;
  }
  loop_->RunHousekeepingBy(deadline);
  if (!link->Begin()) {
    Refuse(*link, kFailed, "the system has no room for it");
    const std::lock_guard lock(half_open_mutex_);
    half_open_.erase(link.get());
  }
}

void ServerCore::Refuse(wire::Link& link, int error, const std::string& reason) {
  refused_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "refused the connection of process %ld: %s",
           link.identity().process_id, reason.c_str());
  link.SendNotice(wire::FrameType::kRefuse, 0, error, reason);
  link.CutOff(error, reason);
}

bool ServerCore::OnHandshake(wire::Link& link, const wire::FrameHeader& header, std::string_view payload) {
  if (link.IsOpen() || header.type != wire::FrameType::kHello) {
    Refuse(link, kProtocol, "a frame out of place, type " + std::to_string(static_cast<int>(header.type)));
    return false;
  }
  wire::Hello hello;
  if (!wire::DecodeHello(hello, payload)) {
    Refuse(link, kProtocol, "its first frame is not a HELLO of this protocol");
    return false;
  }
  if (hello.lowest_version > wire::kProtocolVersion || hello.highest_version < wire::kProtocolVersion) {
    Refuse(link, kProtocol, "it speaks versions " + std::to_string(hello.lowest_version) + " to " +
                                std::to_string(hello.highest_version) + ", this end speaks " +
                                std::to_string(wire::kProtocolVersion));
    return false;
  }
  if (!wire::IsPeerId(hello.id)) {
    Refuse(link, kRefused, "its id is empty, reserved, too long or holds control characters");
    return false;
  }
  {
    const std::lock_guard lock(half_open_mutex_);
    half_open_[&link].link = link.shared_from_this();
    half_open_[&link].id = hello.id;
  }
  TryToAdmit(link.shared_from_this(), hello.id);
  return true;
}

// Nobody takes over a living peer's name: who holds it has to prove that it lives, and this is tried
// again when the holder has gone, or at the latest when its time is up.
void ServerCore::TryToAdmit(const std::shared_ptr<wire::Link>& link, const std::string& id) {
  std::shared_ptr<wire::Link> holder;
  if (peers_.Add(id, link, holder)) {
    Admit(link, id);
    return;
  }
  if (holder == link) return;  // another thread has just admitted it
  const auto deadline = wire::IoLoop::Clock::now() + std::chrono::milliseconds(options_.ping_ms);
  {
    const std::lock_guard lock(half_open_mutex_);
    const auto entry = half_open_.find(link.get());
    if (entry == half_open_.end()) return;  // refused meanwhile
    entry->second.holder = holder;
    entry->second.deadline = deadline;
  }
  holder->SendControl(wire::FrameType::kPing);
  loop_->RunHousekeepingBy(deadline);
  // The holder may have gone before it was noted here that somebody waits for that.
  if (peers_.Add(id, link, holder)) Admit(link, id);
}

// The id is this link's in the table already.
void ServerCore::Admit(const std::shared_ptr<wire::Link>& link, const std::string& id) {
  {
    const std::lock_guard lock(half_open_mutex_);
    half_open_.erase(link.get());
  }
  wire::Welcome welcome;
  welcome.max_message_bytes = options_.max_message_bytes;
  link->SendControl(wire::FrameType::kWelcome, 0, wire::EncodeWelcome(welcome));
  link->Open(id);
  connections_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "peer [%s] connected, process %ld", id.c_str(),
           link->identity().process_id);
  loop_->Post(std::make_unique<ConnectedTask>(shared_from_this(), link, StatusEvent(id, "connected")));
}

void ServerCore::OnPong(wire::Link& link) {
  std::vector<std::shared_ptr<wire::Link>> refused;
  std::string id;
  {
    const std::lock_guard lock(half_open_mutex_);
    for (auto entry = half_open_.begin(); entry != half_open_.end();) {
      if (!entry->second.id.empty() && entry->second.holder.lock().get() == &link) {
        refused.push_back(entry->second.link);
        id = entry->second.id;
        entry = half_open_.erase(entry);
      } else {
        ++entry;
      }
    }
  }
  for (const auto& newcomer : refused) {
    Refuse(*newcomer, kRefused, "the id [" + id + "] is in use");
    newcomer->Continue();
  }
}

void ServerCore::OnLateReply(wire::Link& link) {
  late_replies_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "dropped a reply of peer [%s] that nobody waits for any more",
           link.peer_name().c_str());
}

void ServerCore::OnClosed(wire::Link& link, int error, const std::string& reason) {
  {
    const std::lock_guard lock(half_open_mutex_);
    half_open_.erase(&link);
  }
  if (!link.IsOpen()) {
    TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "a connection ended in its handshake, process %ld: %s",
             link.identity().process_id, reason.c_str());
    return;
  }
  const std::string id = link.peer_name();
  if (error != kPeerGone) cut_off_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(error == kPeerGone ? Tolm::Base::kLogLevelInfo : Tolm::Base::kLogLevelWarning, kTag,
           "peer [%s] disconnected, process %ld: %s", id.c_str(), link.identity().process_id, reason.c_str());
  peers_.Remove(id, link);
  PostEvent(id, "disconnected");

  // Whoever wanted this id may have it now, first come first served by the table.
  std::vector<std::shared_ptr<wire::Link>> waiting;
  {
    const std::lock_guard lock(half_open_mutex_);
    for (const auto& [key, entry] : half_open_) {
      if (entry.id == id) waiting.push_back(entry.link);
    }
  }
  for (const auto& newcomer : waiting) TryToAdmit(newcomer, id);
}

void ServerCore::PostEvent(const std::string& id, const char* status) {
  loop_->Post(std::make_unique<DeliverTask>(shared_from_this(), std::weak_ptr<wire::Link>(),
                                            StatusEvent(id, status)));
}

void ServerCore::ListenFailed(int system_error) {
  TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "no further connection can be accepted, system error %d",
           system_error);
  tag_LPCCallBackData data;
  data.src_id = kFrameId;
  data.dst_id = kFrameId;
  data.body = R"({"method":"serverListenFailed","errorCode":")" + std::to_string(system_error) +
              R"(","errorModule":"TolmLPCServer"})";
  loop_->Post(std::make_unique<DeliverTask>(shared_from_this(), std::weak_ptr<wire::Link>(), std::move(data)));
}

ServerCore::TimePoint ServerCore::Housekeeping(TimePoint now) {
  TimePoint next = TimePoint::max();
  bool accept = false;
  std::vector<std::shared_ptr<wire::Link>> too_slow;
  std::vector<HalfOpen> contenders;
  {
    const std::lock_guard lock(half_open_mutex_);
    accept = now >= accept_again_;
    if (accept) accept_again_ = TimePoint::max();
    next = accept_again_;
    for (auto& [key, entry] : half_open_) {
      if (now >= entry.deadline) {
        entry.deadline = now + std::chrono::milliseconds(options_.ping_ms);
        if (entry.id.empty()) {
          too_slow.push_back(entry.link);
        } else {
          contenders.push_back(entry);
        }
      }
      next = std::min(next, entry.deadline);
    }
  }
  for (const auto& link : too_slow) Refuse(*link, kTimeOut, "its handshake took too long");
  for (const HalfOpen& contender : contenders) {
    if (const auto holder = contender.holder.lock()) {
      holder->CutOff(kTimeOut, "it did not answer a ping, and another process asks for its id");
    }
    TryToAdmit(contender.link, contender.id);
  }
  for (const auto& link : peers_.All()) {
    const TimePoint deadline = link->StallDeadline();
    if (now < deadline) {
      next = std::min(next, deadline);
    } else {
      link->CutOff(kTimeOut, "it took nothing of what was sent to it for " +
                                 std::to_string(options_.stall_ms) + " ms");
    }
  }
  if (accept) AcceptAll();
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

std::uint64_t ServerCore::Send(const tag_LPCRequestData& request, std::string* body_owner, int& error) {
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
  message.body = request.body;
  message.body_owner = body_owner;
  error = link->Send(message);
  return error == kOk ? message.id : 0;
}

int ServerCore::SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request,
                            std::string* body_owner, const std::string& url, int time_out) {
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
  message.body = request.body;
  message.body_owner = body_owner;
  wire::InboundMessage reply;
  const int error = link->SendAndWait(message, time_out, reply);
  if (error != kOk) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, kTag, "no answer of peer [%s] for url [%s]: %s",
             request.dst_id.c_str(), url.c_str(), ErrorText(error));
    return error;
  }
  response.src_id = link->peer_name();
  response.params = std::move(reply.params);
  response.body = std::move(reply.body);
  return kOk;
}

int ServerCore::Reply(const tag_LPCReplyData& reply, std::string* body_owner) {
  const auto link = peers_.Find(reply.dst_id);
  if (!link) return kNoSuchPeer;
  wire::OutgoingMessage message;
  message.type = wire::FrameType::kReply;
  message.id = reply.msg_id;
  message.dst_id = reply.dst_id;
  message.src_id = kFrameId;
  message.params = &reply.params;
  message.body = reply.body;
  message.body_owner = body_owner;
  return link->Send(message);
}

int ServerCore::Notify(const tag_LPCNotifyData& notify, std::string* body_owner) {
  const auto link = peers_.Find(notify.dst_id);
  if (!link) return kNoSuchPeer;
  wire::OutgoingMessage message;
  message.dst_id = notify.dst_id;
  message.src_id = kFrameId;
  message.params = &notify.params;
  message.body = notify.body;
  message.body_owner = body_owner;
  return link->Send(message);
}

Statistics ServerCore::GetStatistics() const {
  Statistics statistics;
  statistics.peers = peers_.size();
  statistics.connections = connections_.load(std::memory_order_relaxed);
  statistics.refused = refused_.load(std::memory_order_relaxed);
  statistics.cut_off = cut_off_.load(std::memory_order_relaxed);
  statistics.late_replies = late_replies_.load(std::memory_order_relaxed);
  statistics.undelivered = undelivered_.load(std::memory_order_relaxed);
  return statistics;
}

}  // namespace lpc
