#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Scripted.h"
#include "TolmNet/HttpServer.h"

namespace tolm::test {

/// One frame that was handed to the server to be sent.
struct SentFrame {
  std::int32_t socket_id = 0;
  std::int32_t type = 0;
  std::string data;
  bool fin = false;
};

/// Stands behind Tolm::Net::CHttpServer: answers as scripted, remembers what was sent, and lets a test play
/// guards. Noted in the journal before a script runs:
///
///   net.Start 127.0.0.1 8123      net.Send 7 NotifyState      (the method; "answer" when there is none)
///   net.SetCallBack 1             net.Close 7
///   net.Stop 1                    net.ClientIp 7
class ScriptedHttpServer {
 public:
  static ScriptedHttpServer& Get();
  /// Servers are numbered from 1 and everything succeeds; nothing is remembered.
  void Reset();

  /// May leave `handle` alone, as a failed start does.
  Scripted<int(std::int32_t& handle)> start;
  Scripted<int(std::int32_t handle)> set_callback;
  Scripted<int(const SentFrame&)> send;
  Scripted<int(std::int32_t socket_id)> close;
  Scripted<int(std::int32_t handle)> stop;
  Scripted<std::string(std::int32_t socket_id)> client_ip;

  std::vector<SentFrame> Sent() const;
  /// The texts that were sent with this method.
  std::vector<SentFrame> Sent(const std::string& method) const;

  // What guards do, on the calling thread as on the server's. Without effect when no server is open.

  void Deliver(std::int32_t socket_id, const Tolm::Net::WebsocketRecv& recv);
  void Handshake(std::int32_t socket_id, std::int32_t status = 0);
  void Close(std::int32_t socket_id);
  void Text(std::int32_t socket_id, const std::string& text, bool fin = true);
  void PlainHttpRequest();

  // What CHttpServer's functions do.
  int StartServer(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                  Tolm::Net::HttpServerCallBack callback);
  int SetCallBack(std::int32_t handle, Tolm::Net::WebSocketServerCallBack callback);
  int Send(const SentFrame& frame);
  int StopServer(std::int32_t handle);

 private:
  ScriptedHttpServer() { Reset(); }

  mutable std::mutex mutex_;
  // All below is guarded by mutex_.
  Tolm::Net::HttpServerCallBack http_callback_;
  Tolm::Net::WebSocketServerCallBack websocket_callback_;
  int delivering_ = 0;
  std::vector<SentFrame> sent_;
};

/// The text at "/requestData/method" of a message; "answer" when there is none.
std::string MethodOf(const std::string& message);

}  // namespace tolm::test
