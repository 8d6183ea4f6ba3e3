#pragma once

#include <libwebsockets.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "Connection.h"
#include "EventSink.h"
#include "ServerOptions.h"
#include "Waker.h"

namespace Tolm::Net {

/// One server: its port, its connections, and the thread that serves them.
///
/// libwebsockets is the event loop here: it polls, reads, keeps time and is woken by other threads. Its own
/// WebSocket role is not used: that takes frames without a mask, makes a second copy of what a socket
/// does not take at once and so hides whether a peer reads, and its listener spins when the process has
/// no descriptors left.
class ServerThread : public std::enable_shared_from_this<ServerThread> {
 public:
  ServerThread(HttpServerCallBack http_callback, const ServerOptions& options);
  ~ServerThread();
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;

  /// As CHttpServer::StartHttpServer; once.
  int Start(const SocketAddress& address);
  void SetCallback(WebSocketServerCallBack callback) { sink_.SetCallback(std::move(callback)); }
  /// Waits for the thread, unless it is the calling one; once, after Start was successful.
  void Stop();

 private:
  struct Client {
    lws* wsi = nullptr;
    std::unique_ptr<Connection> connection;
  };
  struct Tick {
    lws_sorted_usec_list_t timer;  // first: the timer's address is the tick's
    ServerThread* server;
  };

  static int OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
  static void OnTick(lws_sorted_usec_list_t* timer);

  int MakeContext(const SocketAddress& address);
  bool IsWakeable();
  void DestroyContext();
  void ThreadMain();
  void AcceptAll();
  bool Adopt(const Accepted& accepted);
  int OnClientEvent(Client& client, lws_callback_reasons reason, const char* data, std::size_t size);
  void FlushAll();
  void LookAtClocks();
  void Settle(Client& client);
  void Kill(Client& client);
  void FollowSink();
  void SetListening(bool on);
  void EnsureTick();

  const ServerOptions options_;
  const HttpServerCallBack http_callback_;
  const std::shared_ptr<Waker> waker_ = std::make_shared<Waker>();
  EventSink sink_;
  const Connection::Surroundings surroundings_;
  std::thread thread_;

  // Touched by Start, and then by the thread only.
  lws_context* context_ = nullptr;
  lws* listener_ = nullptr;
  int listening_socket_ = kNoSocket;
  bool wakeable_ = false;
  Tick tick_{};
  bool ticking_ = false;
  bool short_of_descriptors_ = false;
  bool reading_ = true;  // false while the sink is full
  std::unordered_map<Client*, std::unique_ptr<Client>> clients_;
};

}  // namespace Tolm::Net
