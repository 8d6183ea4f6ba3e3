#include "Connection.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "ConnectionTable.h"
#include "TolmBase/LogLine.h"

namespace Tolm::Net {
namespace {

using Base::kLogLevelError;
using Base::kLogLevelInfo;

constexpr std::string_view kHeadEnd = "\r\n\r\n";
// After so many calls, others have their turn.
constexpr int kSendTurn = 16;
constexpr std::size_t kSendPiece = 1U << 20;
// Pongs that wait while the peer does not read; beyond it only the newest ping is answered (RFC 6455,
// section 5.5.3).
constexpr std::size_t kMaxUrgent = 32;

}  // namespace

Connection::Connection(const Surroundings& server, const Accepted& accepted)
    : server_(server),
      accepted_(accepted),
      deadline_(Clock::now() + server.options.handshake),
      reader_(*this, server.options.max_frame) {}

Connection::~Connection() {
  if (outbox_ == nullptr) return;
  outbox_->Shut();
  ConnectionTable::Instance().Remove(outbox_->socket_id());
}

std::string Connection::PeerName() const {
  return IpText(accepted_.peer.ip) + ":" + std::to_string(accepted_.peer.port);
}

// ------------------------------------------------------------------------------- Reading

bool Connection::OnBytes(const char* data, std::size_t size) {
  if (state_ == State::kRequest) {
    const std::size_t before = request_.size();
    // What lies behind the head belongs to whatever comes next, and is not collected.
    request_.append(data, std::min(size, kMaxRequestHead - before + 1));
    // The end may have begun in what came earlier.
    const std::size_t search_from = before < kHeadEnd.size() ? 0 : before - (kHeadEnd.size() - 1);
    const std::size_t end = request_.find(kHeadEnd, search_from);
    if (end == std::string::npos) {
      if (request_.size() > kMaxRequestHead) {
        Refuse("431 Request Header Fields Too Large", "its request does not end");
      }
      return !broken_;
    }
    const std::size_t head_size = end + kHeadEnd.size();
    ReadRequest(std::string_view(request_).substr(0, head_size));
    request_ = std::string();
    const std::size_t used = head_size - before;
    data += used;
    size -= used;
  }
  if (state_ == State::kOpen || state_ == State::kClosing) ReadFrames(data, size);
  return !broken_;
}

void Connection::ReadRequest(std::string_view head) {
  const auto request = ParseRequest(head);
  if (!request) return Refuse("400 Bad Request", "it sends no HTTP request");
  if (!request->wants_websocket) return AnswerPlain(*request);
  const char* why = WhyForbidden(*request);
  if (why == nullptr && !IsSameUser()) why = "it is not known to be this user's";
  if (why != nullptr) return Refuse("403 Forbidden", why);
  std::string_view status;
  if (!IsProperUpgrade(*request, status)) return Refuse(status, "its upgrade is not in order");
  Upgrade(*request);
}

bool Connection::IsSameUser() const {
  // Who connects from or to another address of this machine may be anybody, also when it is one of 127.0.0.2
  // to 127.255.255.255: a port that is in use at 127.0.0.1 is free there, and is all that is asked about.
  if (accepted_.local.ip != kLoopback || accepted_.peer.ip != kLoopback) return false;
  return server_.options.is_peer_same_user(accepted_.local.port, accepted_.peer.port);
}

void Connection::Refuse(std::string_view status, const char* why) {
  TOLM_LOG(kLogLevelInfo, kLogTag, "refused %s: %s", PeerName().c_str(), why);
  Linger(MakeRaw(ErrorAnswer(status)));
}

void Connection::AnswerPlain(const UpgradeRequest& request) {
  const std::int32_t id = ConnectionTable::Instance().NextId();
  Linger(MakeRaw(ErrorAnswer("404 Not Found")));
  if (id == 0 || !server_.http_callback || server_.waker->IsStopping()) return;
  try {
    server_.http_callback(id, HttpServerRecv{request.method, request.target});
  } catch (const std::exception& error) {
    TOLM_LOG(kLogLevelError, kLogTag, "the callback for a request threw: %s", error.what());
  } catch (...) {
    TOLM_LOG(kLogLevelError, kLogTag, "the callback for a request threw");
  }
}

void Connection::Upgrade(const UpgradeRequest& request) {
  urgent_.push_back(MakeRaw(UpgradeAnswer(request)));
  outbox_ =
      ConnectionTable::Instance().Add(server_.waker, IpText(accepted_.peer.ip), server_.options.max_queued);
  if (outbox_ == nullptr) {
    urgent_.clear();
    return Refuse("503 Service Unavailable", "there are no more socket ids");
  }
  state_ = State::kOpen;
  if (!Flush()) {
    broken_ = true;
    return;
  }
  server_.sink.Deliver(outbox_->socket_id(), kWebsocketHandshake, true, nullptr, 0);
  owes_close_event_ = true;
}

void Connection::ReadFrames(const char* data, std::size_t size) {
  const auto fault = reader_.Read(data, size);
  if (!fault) return;
  TOLM_LOG(kLogLevelInfo, kLogTag, "ending socket %d at %s with code %d: %s", outbox_->socket_id(),
           PeerName().c_str(), static_cast<int>(fault->code), fault->why);
  // Behind a close frame of ours there is no other one.
  Linger(state_ == State::kClosing ? OutgoingFrame() : MakeCloseFrame(fault->code, fault->why));
}

void Connection::OnData(int opcode, bool fin, const char* data, std::uint32_t len) {
  // Who has closed a socket does not expect anything of it but its end.
  if (outbox_->IsCloseRequested()) return;
  server_.sink.Deliver(outbox_->socket_id(), opcode, fin, data, len);
}

// Also behind our own close frame: the peer may not have seen it yet (RFC 6455, section 5.5.2).
void Connection::OnPing(std::string_view payload) {
  if (urgent_.size() >= kMaxUrgent) urgent_.pop_back();
  urgent_.push_back(MakeFrame(kOpcodePong, true, payload.data(), payload.size()));
  if (!Flush()) broken_ = true;
}

void Connection::OnClose(std::uint16_t code) {
  // Either the answer to our close frame, or to be answered.
  Linger(state_ == State::kClosing ? OutgoingFrame() : MakeCloseFrame(code));
}

// ------------------------------------------------------------------------------- Sending

bool Connection::Flush() {
  for (int turn = 0; turn < kSendTurn; ++turn) {
    if (current_.empty() && !NextFrame()) {
      blocked_ = false;
      return true;
    }
    const std::size_t left = current_.size - current_.sent;
    const auto sent =
        Send(accepted_.socket, current_.bytes.get() + current_.sent, std::min(left, kSendPiece));
    if (sent < 0) return false;
    if (sent == 0) {
      if (!blocked_) stalled_at_ = Clock::now() + server_.options.stall;
      blocked_ = true;
      return true;
    }
    blocked_ = false;
    current_.sent += static_cast<std::size_t>(sent);
    if (!current_.empty()) continue;
    current_ = OutgoingFrame();
    if (current_is_users_) outbox_->Done();
    current_is_users_ = false;
  }
  blocked_ = true;
  stalled_at_ = Clock::now() + server_.options.stall;
  return true;
}

// Makes current_ what is to be sent next; false when there is nothing.
bool Connection::NextFrame() {
  if (!urgent_.empty()) {
    current_ = std::move(urgent_.front());
    urgent_.pop_front();
    return true;
  }
  if (state_ == State::kOpen) {
    switch (outbox_->Take(current_)) {
      case Outbox::Next::kFrame:
        current_is_users_ = true;
        return true;
      case Outbox::Next::kClose:
        current_ = MakeCloseFrame(kCloseNormal);
        state_ = State::kClosing;
        deadline_ = Clock::now() + server_.options.close_answer;
        return true;
      case Outbox::Next::kNothing:
        break;
    }
  }
  if (state_ == State::kLingering && !ended_sending_) {
    EndSending(accepted_.socket);
    ended_sending_ = true;
  }
  return false;
}

// ------------------------------------------------------------------------------- Ending

void Connection::Linger(OutgoingFrame last) {
  state_ = State::kLingering;
  deadline_ = Clock::now() + server_.options.linger;
  urgent_.clear();
  if (!last.empty()) urgent_.push_back(std::move(last));
  if (outbox_ != nullptr) {
    const std::size_t lost = outbox_->Shut();
    if (lost > 0) {
      TOLM_LOG(kLogLevelInfo, kLogTag, "socket %d ended before %zu frames were sent", outbox_->socket_id(),
               lost);
    }
  }
  if (!Flush()) broken_ = true;
  End();
}

bool Connection::OnTime(Clock::time_point now) {
  if (broken_) return true;  // it has been told
  const char* why = nullptr;
  // Room for a few bytes is not told of by the system; a peer that takes little still takes.
  if (blocked_ && !Flush()) {
    why = "its connection is broken";
  } else if (state_ == State::kRequest && now >= deadline_) {
    why = "its handshake is not finished";
  } else if (state_ == State::kClosing && now >= deadline_) {
    why = "it does not answer a close frame";
  } else if (state_ == State::kOpen && blocked_ && now >= stalled_at_) {
    why = "it does not read";
  } else if (state_ != State::kLingering || now < deadline_) {
    return true;
  }
  if (why != nullptr) TOLM_LOG(kLogLevelInfo, kLogTag, "cut off %s: %s", PeerName().c_str(), why);
  OnGone();
  return false;
}

void Connection::SayGoodbye() {
  if (state_ != State::kOpen || !Flush() || !current_.empty()) return;
  current_ = MakeCloseFrame(kCloseGoingAway);
  current_is_users_ = false;
  Send(accepted_.socket, current_.bytes.get(), current_.size);
}

void Connection::OnGone() {
  broken_ = true;
  state_ = State::kLingering;
  End();
}

void Connection::End() {
  if (outbox_ == nullptr) return;
  outbox_->Shut();
  ConnectionTable::Instance().Remove(outbox_->socket_id());
  if (!owes_close_event_) return;
  owes_close_event_ = false;
  server_.sink.Deliver(outbox_->socket_id(), kWebsocketClose, true, nullptr, 0);
}

}  // namespace Tolm::Net
