#include "TolmNet/HttpServer.h"

#include <exception>
#include <new>
#include <utility>

#include "ConnectionTable.h"
#include "ServerOptions.h"
#include "ServerTable.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/Utf8Check.h"

namespace Tolm::Net {
namespace {

// Callers are not to be thrown at.
template <typename Operation>
int Attempt(const char* what, Operation&& operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return kNetNoMemory;
  } catch (const std::exception& error) {
    TOLM_LOG(Base::kLogLevelError, kLogTag, "%s failed: %s", what, error.what());
    return kNetCannotListen;
  }
}

}  // namespace

int CHttpServer::StartHttpServer(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                                 HttpServerCallBack callback) {
  return Attempt("starting a server", [&] {
    return ServerTable::Instance().Start(handle, ip, port, std::move(callback), ServerOptions{});
  });
}

int CHttpServer::SetWebSocketServerCallBack(std::int32_t handle, WebSocketServerCallBack callback) {
  return Attempt("setting a callback",
                 [&] { return ServerTable::Instance().SetCallback(handle, std::move(callback)); });
}

int CHttpServer::SendWebSocketMsg(std::int32_t socket_id, WebsocketMsgtype type, const char* data,
                                  std::uint32_t len, bool fin) {
  if (type != kWebsocketText && type != kWebsocketBinary && type != kWebsocketContinuation) {
    return kNetBadArgument;
  }
  if (data == nullptr && len > 0) return kNetBadArgument;
  // Whoever receives it would have to end the connection.
  if (type == kWebsocketText && fin && !Base::IsUtf8({data, len})) return kNetBadArgument;
  return Attempt("sending", [&]() -> int {
    const auto outbox = ConnectionTable::Instance().Find(socket_id);
    return outbox ? outbox->Send(type, data, len, fin) : kNetNoSuchHandle;
  });
}

int CHttpServer::CloseWebSocket(std::int32_t socket_id) {
  return Attempt("closing", [&]() -> int {
    ConnectionTable& table = ConnectionTable::Instance();
    if (const auto outbox = table.Find(socket_id)) outbox->RequestClose();
    return table.WasGiven(socket_id) ? kNetOk : kNetNoSuchHandle;
  });
}

int CHttpServer::StopServer(std::int32_t handle) {
  return Attempt("stopping a server", [&] { return ServerTable::Instance().Stop(handle); });
}

void CHttpServer::GetWebSocketClientIp(std::string& ip, std::int32_t socket_id) {
  ip.clear();
  Attempt("asking for an address", [&]() -> int {
    if (const auto outbox = ConnectionTable::Instance().Find(socket_id)) ip = outbox->client_ip();
    return kNetOk;
  });
}

}  // namespace Tolm::Net
