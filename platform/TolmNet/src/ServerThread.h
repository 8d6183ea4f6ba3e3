#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "Connection.h"
#include "EventLoop.h"
#include "EventSink.h"
#include "ServerOptions.h"
#include "Waker.h"

namespace Tolm::Net {

/// One server: its port, its connections, and the thread that serves them.
class ServerThread final : public std::enable_shared_from_this<ServerThread>, private EventLoop::Handler {
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
  struct Client : EventLoop::Client {
    std::unique_ptr<Connection> connection;
  };

  // EventLoop::Handler
  void OnListener() override;
  void OnTick() override;
  bool OnClient(EventLoop::Client& watched, EventLoop::Event event, const char* data,
                std::size_t size) override;

  int MakeLoop(const SocketAddress& address);
  void DestroyLoop();
  void ThreadMain();
  void AcceptAll();
  void RestFromAccepting(const std::string& why);
  bool Adopt(const Accepted& accepted);
  void FlushAll();
  void LookAtClocks();
  void Settle(Client& client);
  void FollowSink();
  void EnsureTick();

  const ServerOptions options_;
  const HttpServerCallBack http_callback_;
  const std::shared_ptr<Waker> waker_ = std::make_shared<Waker>();
  EventSink sink_;
  const Connection::Surroundings surroundings_;
  std::thread thread_;

  // Touched by Start, and then by the thread only.
  std::unique_ptr<EventLoop> loop_;
  Socket listening_socket_ = kNoSocket;
  bool ticking_ = false;
  bool short_of_descriptors_ = false;
  bool reading_ = true;  // false while the sink is full
  std::unordered_map<Client*, std::unique_ptr<Client>> clients_;
};

}  // namespace Tolm::Net
