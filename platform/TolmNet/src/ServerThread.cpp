#include "ServerThread.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "ThreadSignals.h"
#include "TolmBase/LogLine.h"
#include "os/ThreadName.h"

namespace Tolm::Net {
namespace {

using Base::kLogLevelError;

// After so many, others have their turn.
constexpr int kAcceptTurn = 64;

// What a connection does, which may want for memory: that costs this connection only.
template <typename Operation>
bool Guarded(Operation&& operation) {
  try {
    return operation();
  } catch (const std::exception& error) {
    TOLM_LOG(kLogLevelError, kLogTag, "a connection is lost: %s", error.what());
    return false;
  }
}

}  // namespace

ServerThread::ServerThread(HttpServerCallBack http_callback, const ServerOptions& options)
    : options_(options),
      http_callback_(std::move(http_callback)),
      sink_(waker_, options_),
      surroundings_{options_, waker_, sink_, http_callback_} {}

ServerThread::~ServerThread() {
  if (loop_ != nullptr) DestroyLoop();
}

// ------------------------------------------------------------------------------- Start and stop

int ServerThread::Start(const SocketAddress& address) {
  const int result = MakeLoop(address);
  if (result != kNetOk) return result;
  waker_->SetLoop(loop_.get());
  const SignalsBlocked blocked;
  thread_ = std::thread([self = shared_from_this()] { self->ThreadMain(); });
  return kNetOk;
}

int ServerThread::MakeLoop(const SocketAddress& address) {
  std::string error;
  const Socket socket = Listen(address, error);
  if (socket == kNoSocket) {
    TOLM_LOG(kLogLevelError, kLogTag, "cannot listen on %s:%d: %s", IpText(address.ip).c_str(),
             static_cast<int>(address.port), error.c_str());
    return kNetCannotListen;
  }
  loop_ = EventLoop::Make(*this, socket);
  if (loop_ != nullptr) {
    listening_socket_ = socket;
    return kNetOk;
  }
  TOLM_LOG(kLogLevelError, kLogTag, "cannot listen on %s:%d: no event loop", IpText(address.ip).c_str(),
           static_cast<int>(address.port));
  return kNetCannotListen;
}

void ServerThread::Stop() {
  waker_->Stop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // it holds the server, and ends behind the callback that it is in
  } else {
    thread_.join();
  }
}

void ServerThread::ThreadMain() {
  os::SetThreadName("TolmNet");
  while (!waker_->IsStopping()) {
    if (!loop_->Turn()) {
      TOLM_LOG(kLogLevelError, kLogTag, "the server's event loop failed");
      break;
    }
    if (!waker_->TakeWake()) continue;
    sink_.DeliverKept();
    FollowSink();
    FlushAll();
  }
  for (const auto& entry : clients_) {
    Guarded([&] {
      entry.second->connection->SayGoodbye();
      return true;
    });
  }
  DestroyLoop();
}

// Closes the listener and every socket; what is left over behaves as if its peer had gone.
void ServerThread::DestroyLoop() {
  waker_->SetLoop(nullptr);
  loop_.reset();
  clients_.clear();
}

// ------------------------------------------------------------------------------- Events

bool ServerThread::OnClient(EventLoop::Client& watched, EventLoop::Event event, const char* data,
                            std::size_t size) {
  auto& client = static_cast<Client&>(watched);
  Connection& connection = *client.connection;
  const bool wanted = Guarded([&] {
    if (event == EventLoop::Event::kBytes) return connection.OnBytes(data, size);
    if (event == EventLoop::Event::kRoom) return connection.Flush();
    connection.OnGone();
    return false;
  });
  if (event == EventLoop::Event::kClosed) {
    clients_.erase(&client);
    // Its descriptor is free in a moment; whoever waits for one is looked after by the tick.
    return true;
  }
  FollowSink();
  if (!wanted) return false;
  Settle(client);
  return true;
}

// After something happened to a client: asks for what it waits for now.
void ServerThread::Settle(Client& client) {
  if (client.connection->WantsToWrite()) loop_->AskForRoom(client);
  if (client.connection->HasDeadline()) EnsureTick();
}

void ServerThread::FlushAll() {
  for (const auto& entry : clients_) {
    Client& client = *entry.second;
    if (Guarded([&] { return client.connection->Flush(); })) {
      Settle(client);
    } else {
      loop_->CloseSoon(client);
    }
  }
}

// ------------------------------------------------------------------------------- Accepting

// The library that calls these two knows no exceptions.
void ServerThread::OnListener() {
  const bool done = Guarded([this] {
    AcceptAll();
    return true;
  });
  if (!done) RestFromAccepting("memory is short");
}

void ServerThread::OnTick() {
  const bool done = Guarded([this] {
    LookAtClocks();
    return true;
  });
  if (!done) EnsureTick();
}

void ServerThread::AcceptAll() {
  for (int turn = 0; turn < kAcceptTurn && reading_; ++turn) {
    Accepted accepted;
    std::string error;
    switch (Accept(listening_socket_, accepted, error)) {
      case AcceptResult::kAccepted:
        if (Adopt(accepted)) continue;
        return RestFromAccepting("a connection is lost: it finds no place");
      case AcceptResult::kNobody:
        // Only now is a shortage over: in it one comes as soon as another one goes.
        short_of_descriptors_ = false;
        return;
      case AcceptResult::kShortage:
        return RestFromAccepting(error);
    }
  }
}

// Who waits would be told of again at once: he is looked for by the tick instead.
void ServerThread::RestFromAccepting(const std::string& why) {
  if (!short_of_descriptors_) {
    TOLM_LOG(kLogLevelError, kLogTag, "nobody can be accepted for now: %s", why.c_str());
  }
  short_of_descriptors_ = true;
  loop_->SetListening(false);
  EnsureTick();
}

bool ServerThread::Adopt(const Accepted& accepted) {
  Client* client = nullptr;
  const bool made = Guarded([&] {
    auto owned = std::make_unique<Client>();
    owned->connection = std::make_unique<Connection>(surroundings_, accepted);
    client = clients_.emplace(owned.get(), std::move(owned)).first->first;
    return true;
  });
  if (!made) {
    Close(accepted.socket);
    return false;
  }
  if (!loop_->Add(*client, accepted.socket)) {
    // The socket is closed; the client went with it if it was told.
    clients_.erase(client);
    return false;
  }
  EnsureTick();
  return true;
}

// While nobody takes events, nothing is read: what clients send waits on their side.
void ServerThread::FollowSink() {
  const bool read = !sink_.IsFull();
  if (read == reading_) return;
  reading_ = read;
  for (const auto& [key, client] : clients_) loop_->SetReading(*client, read);
  loop_->SetListening(read && !short_of_descriptors_);
}

// ------------------------------------------------------------------------------- Time

void ServerThread::EnsureTick() {
  if (ticking_) return;
  ticking_ = true;
  const auto shortest =
      std::min({options_.handshake, options_.stall, options_.close_answer, options_.linger});
  const auto tick = std::clamp(shortest / 8, std::chrono::milliseconds(2), std::chrono::milliseconds(100));
  loop_->TickIn(tick);
}

void ServerThread::LookAtClocks() {
  ticking_ = false;
  const auto now = Connection::Clock::now();
  for (const auto& entry : clients_) {
    Client& client = *entry.second;
    if (Guarded([&] { return client.connection->OnTime(now); })) {
      Settle(client);
    } else {
      loop_->CloseSoon(client);
    }
  }
  FollowSink();
  if (short_of_descriptors_) {
    loop_->SetListening(reading_);
    AcceptAll();
    // Also when others have their turn before everybody was accepted.
    if (short_of_descriptors_) EnsureTick();
  }
}

}  // namespace Tolm::Net
