#include "ScriptedHttpServer.h"

#include <atomic>
#include <memory>
#include <utility>

#include "Journal.h"
#include "TolmProto/RapidJsonProto.h"
#include "support/Wait.h"

namespace tolm::test {

using Tolm::Net::WebsocketRecv;

ScriptedHttpServer& ScriptedHttpServer::Get() {
  static ScriptedHttpServer* const server = new ScriptedHttpServer;
  return *server;
}

void ScriptedHttpServer::Reset() {
  start = [next = std::make_shared<std::atomic<std::int32_t>>(1)](std::int32_t& handle) {
    handle = (*next)++;
    return 0;
  };
  set_callback = 0;
  send = 0;
  close = 0;
  stop = 0;
  client_ip = [](std::int32_t) { return std::string("127.0.0.1"); };
  const std::lock_guard lock(mutex_);
  sent_.clear();
}

std::vector<SentFrame> ScriptedHttpServer::Sent() const {
  const std::lock_guard lock(mutex_);
  return sent_;
}

std::vector<SentFrame> ScriptedHttpServer::Sent(const std::string& method) const {
  std::vector<SentFrame> sent = Sent();
  std::erase_if(sent, [&](const SentFrame& frame) { return MethodOf(frame.data) != method; });
  return sent;
}

void ScriptedHttpServer::Deliver(std::int32_t socket_id, const WebsocketRecv& recv) {
  Tolm::Net::WebSocketServerCallBack callback;
  {
    const std::lock_guard lock(mutex_);
    callback = websocket_callback_;
    ++delivering_;
  }
  if (callback) callback(socket_id, recv);
  const std::lock_guard lock(mutex_);
  --delivering_;
}

void ScriptedHttpServer::Handshake(std::int32_t socket_id, std::int32_t status) {
  Deliver(socket_id, {true, Tolm::Net::kWebsocketHandshake, status, 0, nullptr});
}

void ScriptedHttpServer::Close(std::int32_t socket_id) {
  Deliver(socket_id, {true, Tolm::Net::kWebsocketClose, 0, 0, nullptr});
}

void ScriptedHttpServer::Text(std::int32_t socket_id, const std::string& text, bool fin) {
  Deliver(socket_id,
          {fin, Tolm::Net::kWebsocketText, 0, static_cast<std::uint32_t>(text.size()), text.data()});
}

void ScriptedHttpServer::PlainHttpRequest() {
  Tolm::Net::HttpServerCallBack callback;
  {
    const std::lock_guard lock(mutex_);
    callback = http_callback_;
  }
  if (callback) callback(1, {"GET", "/"});
}

int ScriptedHttpServer::StartServer(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                                    Tolm::Net::HttpServerCallBack callback) {
  Journal::Note("net.Start " + ip + " " + std::to_string(port));
  const int result = start(handle);
  if (result != 0) return result;
  const std::lock_guard lock(mutex_);
  http_callback_ = std::move(callback);
  return 0;
}

int ScriptedHttpServer::SetCallBack(std::int32_t handle, Tolm::Net::WebSocketServerCallBack callback) {
  Journal::Note("net.SetCallBack " + std::to_string(handle));
  const int result = set_callback(handle);
  if (result != 0) return result;
  const std::lock_guard lock(mutex_);
  websocket_callback_ = std::move(callback);
  return 0;
}

int ScriptedHttpServer::Send(const SentFrame& frame) {
  Journal::Note("net.Send " + std::to_string(frame.socket_id) + " " + MethodOf(frame.data));
  {
    const std::lock_guard lock(mutex_);
    sent_.push_back(frame);
  }
  return send(frame);
}

int ScriptedHttpServer::StopServer(std::int32_t handle) {
  Journal::Note("net.Stop " + std::to_string(handle));
  const int result = stop(handle);
  {
    const std::lock_guard lock(mutex_);
    http_callback_ = nullptr;
    websocket_callback_ = nullptr;
  }
  // As the real one: no callback runs or starts any more once this has returned.
  WaitFor([this] {
    const std::lock_guard lock(mutex_);
    return delivering_ == 0;
  });
  return result;
}

std::string MethodOf(const std::string& message) {
  proto::CRapidJsonProto json;
  json.set_str(message);
  return json.get_v("/requestData/method", "answer");
}

}  // namespace tolm::test

namespace Tolm::Net {

using tolm::test::Journal;
using tolm::test::ScriptedHttpServer;

int CHttpServer::StartHttpServer(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                                 HttpServerCallBack callback) {
  return ScriptedHttpServer::Get().StartServer(handle, ip, port, std::move(callback));
}

int CHttpServer::SetWebSocketServerCallBack(std::int32_t handle, WebSocketServerCallBack callback) {
  return ScriptedHttpServer::Get().SetCallBack(handle, std::move(callback));
}

int CHttpServer::SendWebSocketMsg(std::int32_t socket_id, WebsocketMsgtype type, const char* data,
                                  std::uint32_t len, bool fin) {
  return ScriptedHttpServer::Get().Send({socket_id, type, std::string(data, len), fin});
}

int CHttpServer::CloseWebSocket(std::int32_t socket_id) {
  Journal::Note("net.Close " + std::to_string(socket_id));
  return ScriptedHttpServer::Get().close(socket_id);
}

int CHttpServer::StopServer(std::int32_t handle) {
  return ScriptedHttpServer::Get().StopServer(handle);
}

void CHttpServer::GetWebSocketClientIp(std::string& ip, std::int32_t socket_id) {
  Journal::Note("net.ClientIp " + std::to_string(socket_id));
  ip = ScriptedHttpServer::Get().client_ip(socket_id);
}

}  // namespace Tolm::Net
