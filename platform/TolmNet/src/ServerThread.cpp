#include "ServerThread.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>

#include "ThreadSignals.h"
#include "TolmBase/LogLine.h"
#include "os/ThreadName.h"

namespace Tolm::Net {
namespace {

using Base::kLogLevelError;

// What one read takes at most.
constexpr unsigned int kReadBytes = 64U * 1024;
// Of the tables that libwebsockets makes for as many descriptors as the process may have, which some
// systems set to a thousand million.
constexpr unsigned int kMaxDescriptors = 64U * 1024;
// After so many, others have their turn.
constexpr int kAcceptTurn = 64;

// What libwebsockets says goes to our log, and only what it calls an error; for all of the process, since
// it has no other way.
void LogLine(int, const char* text) {
  std::string line(text);
  while (!line.empty() && line.back() == '\n') line.pop_back();
  TOLM_LOG(kLogLevelError, kLogTag, "%s", line.c_str());
}

void TakeLibraryLog() {
  static std::once_flag once;
  std::call_once(once, [] { lws_set_log_level(LLL_ERR, LogLine); });
}

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
      surroundings_{options_, waker_, sink_, http_callback_} {
  tick_.server = this;
}

ServerThread::~ServerThread() {
  if (context_ != nullptr) DestroyContext();
}

// ------------------------------------------------------------------------------- Start and stop

int ServerThread::Start(const SocketAddress& address) {
  const int result = MakeContext(address);
  if (result != kNetOk) return result;
  waker_->SetContext(context_);
  const SignalsBlocked blocked;
  thread_ = std::thread([self = shared_from_this()] { self->ThreadMain(); });
  return kNetOk;
}

int ServerThread::MakeContext(const SocketAddress& address) {
  std::string error;
  const int socket = Listen(address, error);
  if (socket == kNoSocket) {
    TOLM_LOG(kLogLevelError, kLogTag, "cannot listen on %s:%d: %s", IpText(address.ip).c_str(),
             static_cast<int>(address.port), error.c_str());
    return kNetCannotListen;
  }
  static const lws_protocols kProtocols[] = {{"", OnEvent, 0, 0, 0, nullptr, 0},
                                             {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = kProtocols;
  info.user = this;
  info.pt_serv_buf_size = kReadBytes;
  info.gid = -1;
  info.uid = -1;
  info.options = LWS_SERVER_OPTION_SKIP_SERVER_CANONICAL_NAME | LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
  if (DescriptorLimit() > kMaxDescriptors) info.fd_limit_per_thread = kMaxDescriptors;
  TakeLibraryLog();
  {
    const PipeSignalKept kept;
    context_ = lws_create_context(&info);
  }
  if (context_ != nullptr && IsWakeable()) {
    lws_sock_file_fd_type descriptor{};
    descriptor.filefd = socket;
    listener_ = lws_adopt_descriptor_vhost(lws_get_vhost_by_name(context_, "default"),
                                           LWS_ADOPT_RAW_FILE_DESC, descriptor, nullptr, nullptr);
  }
  if (listener_ != nullptr) {
    listening_socket_ = socket;
    return kNetOk;
  }
  Close(socket);
  TOLM_LOG(kLogLevelError, kLogTag, "cannot listen on %s:%d: no context", IpText(address.ip).c_str(),
           static_cast<int>(address.port));
  return kNetCannotListen;
}

// A context is made also when there is no descriptor left for waking it; it could then not be stopped.
bool ServerThread::IsWakeable() {
  lws_cancel_service(context_);
  EnsureTick();  // ends the wait if nothing else does
  lws_service(context_, 0);
  return wakeable_;
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
    if (lws_service(context_, 0) < 0) {
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
  DestroyContext();
}

// Closes the listener and every socket; what is left over behaves as if its peer had gone.
void ServerThread::DestroyContext() {
  waker_->SetContext(nullptr);
  lws_context_destroy(context_);
  context_ = nullptr;
  clients_.clear();
}

// ------------------------------------------------------------------------------- Events

int ServerThread::OnEvent(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t len) {
  switch (reason) {
    case LWS_CALLBACK_RAW_RX_FILE:
      static_cast<ServerThread*>(lws_context_user(lws_get_context(wsi)))->AcceptAll();
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      static_cast<ServerThread*>(lws_context_user(lws_get_context(wsi)))->wakeable_ = true;
      return 0;
    case LWS_CALLBACK_RAW_RX:
    case LWS_CALLBACK_RAW_WRITEABLE:
    case LWS_CALLBACK_RAW_CLOSE: {
      auto* const client = static_cast<Client*>(lws_get_opaque_user_data(wsi));
      if (client == nullptr) return -1;
      auto& server = *static_cast<ServerThread*>(lws_context_user(lws_get_context(wsi)));
      return server.OnClientEvent(*client, reason, static_cast<const char*>(in), len);
    }
    default:
      return 0;
  }
}

int ServerThread::OnClientEvent(Client& client, lws_callback_reasons reason, const char* data,
                                std::size_t size) {
  Connection& connection = *client.connection;
  const bool wanted = Guarded([&] {
    if (reason == LWS_CALLBACK_RAW_RX) return connection.OnBytes(data, size);
    if (reason == LWS_CALLBACK_RAW_WRITEABLE) return connection.Flush();
    connection.OnGone();
    return false;
  });
  if (reason == LWS_CALLBACK_RAW_CLOSE) {
    clients_.erase(&client);
    // Its descriptor is free in a moment; whoever waits for one is looked after by the tick.
    return 0;
  }
  FollowSink();
  if (!wanted) return -1;
  Settle(client);
  return 0;
}

// After something happened to a client: asks for what it waits for now.
void ServerThread::Settle(Client& client) {
  if (client.connection->WantsToWrite()) lws_callback_on_writable(client.wsi);
  if (client.connection->HasDeadline()) EnsureTick();
}

void ServerThread::FlushAll() {
  for (const auto& entry : clients_) {
    Client& client = *entry.second;
    if (Guarded([&] { return client.connection->Flush(); })) {
      Settle(client);
    } else {
      Kill(client);
    }
  }
}

void ServerThread::Kill(Client& client) {
  lws_set_timeout(client.wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
}

// ------------------------------------------------------------------------------- Accepting

void ServerThread::AcceptAll() {
  for (int turn = 0; turn < kAcceptTurn && reading_; ++turn) {
    Accepted accepted;
    std::string error;
    switch (Accept(listening_socket_, accepted, error)) {
      case AcceptResult::kAccepted:
        short_of_descriptors_ = false;
        if (!Adopt(accepted)) return;
        continue;
      case AcceptResult::kNobody:
        return;
      case AcceptResult::kShortage:
        // Who waits would be told of again at once: he is looked for by the tick instead.
        if (!short_of_descriptors_) {
          TOLM_LOG(kLogLevelError, kLogTag, "nobody can be accepted for now: %s", error.c_str());
        }
        short_of_descriptors_ = true;
        SetListening(false);
        EnsureTick();
        return;
    }
  }
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
  lws_adopt_desc_t description{};
  description.vh = lws_get_vhost_by_name(context_, "default");
  description.type = LWS_ADOPT_SOCKET;
  description.fd.sockfd = accepted.socket;
  description.opaque = client;
  lws* const wsi = lws_adopt_descriptor_vhost_via_info(&description);
  if (wsi == nullptr) {
    // The socket is closed; the client went with it if it was told.
    clients_.erase(client);
    TOLM_LOG(kLogLevelError, kLogTag, "a connection is lost: it finds no place");
    return false;
  }
  client->wsi = wsi;
  EnsureTick();
  return true;
}

void ServerThread::SetListening(bool on) {
  lws_rx_flow_control(listener_, on ? 1 : 0);
}

// While nobody takes events, nothing is read: what clients send waits on their side.
void ServerThread::FollowSink() {
  const bool read = !sink_.IsFull();
  if (read == reading_) return;
  reading_ = read;
  for (const auto& [key, client] : clients_) lws_rx_flow_control(client->wsi, read ? 1 : 0);
  SetListening(read && !short_of_descriptors_);
}

// ------------------------------------------------------------------------------- Time

void ServerThread::EnsureTick() {
  if (ticking_) return;
  ticking_ = true;
  const auto shortest =
      std::min({options_.handshake, options_.stall, options_.close_answer, options_.linger});
  const auto tick = std::clamp(shortest / 8, std::chrono::milliseconds(2), std::chrono::milliseconds(100));
  lws_sul_schedule(context_, 0, &tick_.timer, OnTick, tick.count() * LWS_US_PER_MS);
}

void ServerThread::OnTick(lws_sorted_usec_list_t* timer) {
  reinterpret_cast<Tick*>(timer)->server->LookAtClocks();
}

void ServerThread::LookAtClocks() {
  ticking_ = false;
  const auto now = Connection::Clock::now();
  for (const auto& entry : clients_) {
    Client& client = *entry.second;
    if (Guarded([&] { return client.connection->OnTime(now); })) {
      Settle(client);
    } else {
      Kill(client);
    }
  }
  FollowSink();
  if (short_of_descriptors_) {
    SetListening(reading_);
    AcceptAll();
  }
}

}  // namespace Tolm::Net
