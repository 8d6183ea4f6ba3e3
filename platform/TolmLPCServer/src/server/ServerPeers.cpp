// A peer's life at an endpoint: its handshake, whether it gets the id that it asks for, and its end.

#include <algorithm>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmLPCServer/LpcError.h"
#include "server/ServerCore.h"

namespace lpc {
namespace {

constexpr char kTag[] = "TolmLPCServer";

// Ids hold no control characters, so two characters are all that JSON wants escaped.
std::string JsonEscaped(const std::string& id) {
  std::string escaped;
  for (const char c : id) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

tag_LPCCallBackData StatusEvent(const std::string& id, const char* status) {
  tag_LPCCallBackData data;
  data.src_id = id;
  data.dst_id = kFrameId;
  data.body = std::string(R"({"method":"connectionStatusChanged","status":")") + status +
              R"(","componentID":")" + JsonEscaped(id) + "\"}";
  return data;
}

}  // namespace

// A "connected" or "disconnected" event, and what has to wait until it has been delivered.
class ServerCore::StatusTask final : public Tolm::Base::CTask {
 public:
  StatusTask(tag_LPCCallBackData&& data, std::function<void()> afterwards)
      : data_(std::move(data)), afterwards_(std::move(afterwards)) {}
  /// Before it is posted: one that is only kept holds nobody.
  void SetCore(std::shared_ptr<ServerCore> core) { core_ = std::move(core); }
  void Run() override {
    std::exception_ptr failure;
    try {
      if (!core_->deliver_(data_)) core_->undelivered_.fetch_add(1, std::memory_order_relaxed);
    } catch (...) {
      failure = std::current_exception();
    }
    afterwards_();
    if (failure) std::rethrow_exception(failure);
  }

 private:
  std::shared_ptr<ServerCore> core_;
  tag_LPCCallBackData data_;
  const std::function<void()> afterwards_;
};

// All that a peer's life needs memory for on this end, made before it begins: a peer that is let in is
// announced, and one that was announced has an end.
struct ServerCore::Admission {
  std::string welcome;
  std::string id;
  wire::WorkList connected;
  wire::WorkList disconnected;
};

void ServerCore::Accept(std::unique_ptr<os::Stream> stream) {
  const os::PeerIdentity identity = stream->Peer();
  if (!identity.same_user) {
    // Closed without a word: a stranger is not told what it has found.
    NoteRefused(identity, "it belongs to another user");
    return;
  }
  auto link = std::make_shared<wire::Link>(std::move(stream), loop_, options_, *this);
  const auto deadline = wire::IoLoop::Clock::now() + std::chrono::milliseconds(options_.handshake_ms);
  bool room = false;
  {
    const os::MutexLock lock(half_open_mutex_);
    room = half_open_.size() < options_.max_half_open && !stopping_.load();
    if (room) half_open_[link.get()] = {link, deadline, {}, {}, false};
  }
  if (!room) {
    Refuse(*link, kQueueFull, "too many connections have not finished their handshake");
    return;
  }
  loop_->RunHousekeepingBy(deadline);
  if (!link->Begin()) {
    Refuse(*link, kFailed, "the system has no room for it");
    const os::MutexLock lock(half_open_mutex_);
    half_open_.erase(link.get());
  }
}

void ServerCore::Refuse(wire::Link& link, int error, std::string_view reason) noexcept {
  {
    const os::MutexLock lock(half_open_mutex_);
    const auto entry = half_open_.find(&link);
    if (entry != half_open_.end() && std::exchange(entry->second.refused, true)) return;
  }
  TellRefused(link, error, reason);
}

// Whoever marks an entry as refused does this, once.
void ServerCore::TellRefused(wire::Link& link, int error, std::string_view reason) noexcept {
  NoteRefused(link.identity(), reason);
  link.SendNotice(wire::FrameType::kRefuse, 0, error, reason);
  link.CutOff(error, reason);
}

void ServerCore::NoteRefused(const os::PeerIdentity& peer, std::string_view reason) noexcept {
  refused_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "refused the connection of process %ld: %.*s", peer.process_id,
           static_cast<int>(reason.size()), reason.data());
}

wire::HandshakeStep ServerCore::OnHandshake(wire::Link& link, const wire::FrameHeader& header,
                                            std::string_view payload) {
  if (link.IsOpen()) {
    const std::string reason =
        "a frame of type " + std::to_string(static_cast<int>(header.type)) + " after the handshake";
    link.SendNotice(wire::FrameType::kGoodbye, 0, kProtocol, reason);
    link.CutOff(kProtocol, reason);
    return wire::HandshakeStep::kClose;
  }
  if (header.type != wire::FrameType::kHello) {
    Refuse(link, kProtocol, "its first frame is of type " + std::to_string(static_cast<int>(header.type)));
    return wire::HandshakeStep::kClose;
  }
  wire::Hello hello;
  if (!wire::DecodeHello(hello, payload)) {
    Refuse(link, kProtocol, "its first frame is not a HELLO of this protocol");
    return wire::HandshakeStep::kClose;
  }
  if (hello.lowest_version > wire::kProtocolVersion || hello.highest_version < wire::kProtocolVersion) {
    Refuse(link, kProtocol,
           "it speaks versions " + std::to_string(hello.lowest_version) + " to " +
               std::to_string(hello.highest_version) + ", this end speaks " +
               std::to_string(wire::kProtocolVersion));
    return wire::HandshakeStep::kClose;
  }
  if (!wire::IsPeerId(hello.id)) {
    Refuse(link, kRefused, "its id is empty, reserved, too long or holds control characters");
    return wire::HandshakeStep::kClose;
  }
  {
    const os::MutexLock lock(half_open_mutex_);
    const auto entry = half_open_.find(&link);
    // Too late, or this end stops.
    if (entry == half_open_.end() || entry->second.refused) return wire::HandshakeStep::kClose;
    entry->second.id = hello.id;
  }
  return TryToAdmit(link.shared_from_this(), hello.id) ? wire::HandshakeStep::kReadOn
                                                       : wire::HandshakeStep::kHold;
}

// Nobody takes over a living peer's name: who holds it has to prove that it lives, and this is tried
// again when the holder has gone, or at the latest when its time is up. Says whether the link is now open.
bool ServerCore::TryToAdmit(const std::shared_ptr<wire::Link>& link, const std::string& id) {
  const auto deadline = wire::IoLoop::Clock::now() + std::chrono::milliseconds(options_.ping_ms);
  wire::Welcome welcome;
  welcome.max_message_bytes = options_.max_message_bytes;
  Admission admission{wire::EncodeWelcome(welcome), id, {}, {}};
  admission.connected.push_back(
      std::make_unique<StatusTask>(StatusEvent(id, "connected"), [link] { link->StartDelivery(); }));
  admission.disconnected.push_back(std::make_unique<StatusTask>(
      StatusEvent(id, "disconnected"), [this, id, gone = link.get()] { Forget(id, gone); }));
  std::shared_ptr<wire::Link> holder;
  {
    // One lock around both tables, so that a holder that goes now either leaves the id free here, or
    // finds in Forget that somebody waits for it.
    const os::MutexLock lock(half_open_mutex_);
    const auto entry = half_open_.find(link.get());
    if (entry == half_open_.end() || entry->second.refused) return false;  // decided meanwhile
    if (peers_.Add(id, link, holder)) {
      half_open_.erase(entry);
    } else {
      entry->second.holder = holder;
      entry->second.deadline = deadline;
    }
  }
  if (!holder) {
    Admit(link, std::move(admission));
    return true;
  }
  holder->SendControl(wire::FrameType::kPing);
  loop_->RunHousekeepingBy(deadline);
  return false;
}

// The id is this link's in the table already.
void ServerCore::Admit(const std::shared_ptr<wire::Link>& link, Admission&& admission) noexcept {
  link->SendControl(wire::FrameType::kWelcome, 0, admission.welcome);
  link->KeepForEnd(std::move(admission.disconnected));
  link->Open(std::move(admission.id), options_.max_message_bytes);
  connections_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "peer [%s] connected, process %ld", link->peer_name().c_str(),
           link->identity().process_id);
  if (IsToBeTold(admission.connected)) loop_->Post(admission.connected);
  // A Stop that is under way may have looked for waiters before this peer was in the table.
  if (stopping_.load()) link->FailSenders(kPeerGone);
  if (waits_ended_.load()) link->FailWaiters(kPeerGone);
}

void ServerCore::OnPong(wire::Link& link) {
  RefuseForHolder(link);
}

// The holder of an id lives: whoever asked for that id is refused.
void ServerCore::RefuseForHolder(const wire::Link& holder) {
  std::vector<std::shared_ptr<wire::Link>> newcomers;
  const std::string reason = "the id [" + holder.peer_name() + "] is in use";
  {
    const os::MutexLock lock(half_open_mutex_);
    newcomers.reserve(half_open_.size());
    for (auto& [key, entry] : half_open_) {
      if (entry.refused || entry.id.empty() || entry.holder.lock().get() != &holder) continue;
      entry.refused = true;
      newcomers.push_back(entry.link);
    }
  }
  for (const auto& newcomer : newcomers) {
    TellRefused(*newcomer, kRefused, reason);
    newcomer->Continue();
  }
}

void ServerCore::OnLateReply(wire::Link& link) {
  late_replies_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "dropped a reply of peer [%s] that nobody waits for any more",
           link.peer_name().c_str());
}

void ServerCore::OnClosed(wire::Link& link, bool was_open, int error, const std::string& reason) noexcept {
  if (!was_open) {
    bool broke_the_rules = false;
    {
      const os::MutexLock lock(half_open_mutex_);
      const auto entry = half_open_.find(&link);
      if (entry != half_open_.end()) {
        broke_the_rules = !entry->second.refused && error != kPeerGone;
        half_open_.erase(entry);
      }
    }
    if (broke_the_rules) refused_.fetch_add(1, std::memory_order_relaxed);
    TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "a connection ended in its handshake, process %ld: %s",
             link.identity().process_id, reason.c_str());
    return;
  }
  const std::string& id = link.peer_name();
  if (error != kPeerGone) cut_off_.fetch_add(1, std::memory_order_relaxed);
  TOLM_LOG(error == kPeerGone ? Tolm::Base::kLogLevelInfo : Tolm::Base::kLogLevelWarning, kTag,
           "peer [%s] disconnected, process %ld: %s", id.c_str(), link.identity().process_id, reason.c_str());
  // The id stays taken until the event has been delivered: who has it next comes after that in the eyes
  // of the host, too.
  wire::WorkList disconnected = link.TakeForEnd();
  if (IsToBeTold(disconnected)) link.Deliver(disconnected);
}

// Nobody hears of what happens while the core is being destroyed.
bool ServerCore::IsToBeTold(wire::WorkList& event) noexcept {
  auto self = weak_from_this().lock();
  if (!self) return false;
  static_cast<StatusTask&>(*event.front()).SetCore(std::move(self));
  return true;
}

// Whoever waits for this link's id may have it now, first come first served by the table.
void ServerCore::Forget(const std::string& id, const wire::Link* link) {
  peers_.Remove(id, link);
  std::vector<std::shared_ptr<wire::Link>> waiting;
  {
    const os::MutexLock lock(half_open_mutex_);
    for (const auto& [key, entry] : half_open_) {
      if (entry.id == id && !entry.refused) waiting.push_back(entry.link);
    }
  }
  for (const auto& newcomer : waiting) {
    if (TryToAdmit(newcomer, id)) newcomer->Continue();
  }
}

}  // namespace lpc
