// A server for scripts: says its port, then each event as a line, until its input ends.
//
//   port 40123
//   7 handshake
//   7 text+ 5          (a plus: final; the length)
//   7 close
//
// Some texts have it do something: "!close" has it close the connection, "!text 5" and "!binary 5" send so
// many bytes, "!fragments" a text in three frames, "!overlong", "!surrogate" and "!short" a text that is not
// UTF-8. A sending that fails is a line, too: "7 refused 2" with the result.
//
// usage: net_echo [--any-user]
//
// --any-user: for a client whose owner the system cannot tell, as when a Windows server runs beside a client
// that does not belong to that world.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "ServerPort.h"
#include "ServerTable.h"
#include "TolmNet/HttpServer.h"

namespace {

using Tolm::Net::CHttpServer;
using Tolm::Net::WebsocketRecv;

const char* Name(std::int32_t type) {
  switch (type) {
    case Tolm::Net::kWebsocketContinuation:
      return "continuation";
    case Tolm::Net::kWebsocketText:
      return "text";
    case Tolm::Net::kWebsocketBinary:
      return "binary";
    case Tolm::Net::kWebsocketClose:
      return "close";
    case Tolm::Net::kWebsocketHandshake:
      return "handshake";
    default:
      return "unknown";
  }
}

void Send(std::int32_t socket, Tolm::Net::WebsocketMsgtype type, const std::string& data, bool fin = true) {
  const int result =
      CHttpServer::SendWebSocketMsg(socket, type, data.data(), static_cast<std::uint32_t>(data.size()), fin);
  if (result != 0) std::printf("%d refused %d\n", socket, result);
}

void Obey(std::int32_t socket, const std::string& order) {
  const std::size_t blank = order.find(' ');
  const std::string what = order.substr(0, blank);
  const std::string bytes(blank == std::string::npos ? 0 : std::strtoul(order.c_str() + blank, nullptr, 10),
                          'x');
  if (what == "!close") CHttpServer::CloseWebSocket(socket);
  if (what == "!text") Send(socket, Tolm::Net::kWebsocketText, bytes);
  if (what == "!binary") Send(socket, Tolm::Net::kWebsocketBinary, bytes);
  if (what == "!overlong") Send(socket, Tolm::Net::kWebsocketText, "a\xC0\x80");
  if (what == "!surrogate") Send(socket, Tolm::Net::kWebsocketText, "\xED\xA0\x80");
  if (what == "!short") Send(socket, Tolm::Net::kWebsocketText, "a\xC3");
  if (what == "!fragments") {
    Send(socket, Tolm::Net::kWebsocketText, "ab", false);
    Send(socket, Tolm::Net::kWebsocketContinuation, "", false);
    Send(socket, Tolm::Net::kWebsocketContinuation, "c");
  }
}

void Print(std::int32_t socket, const WebsocketRecv& recv) {
  std::printf("%d %s", socket, Name(recv.type));
  if (recv.data != nullptr) std::printf("%c %u", recv.fin ? '+' : '-', recv.len);
  std::printf("\n");
  const std::string text(recv.data, recv.data != nullptr ? recv.len : 0);
  if (recv.type == Tolm::Net::kWebsocketText && text.starts_with('!')) Obey(socket, text);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) try {
  Tolm::Net::ServerOptions options;
  // Requests come byte by byte, and machines may be slow.
  options.handshake = std::chrono::minutes(1);
  if (argc > 1 && std::string_view(argv[1]) == "--any-user") {
    options.is_peer_same_user = [](std::uint16_t, std::uint16_t) { return true; };
  }
  std::int32_t handle = -1;
  std::uint16_t port = 0;
  // Somebody else may take the port in between.
  for (int attempt = 0; attempt < 20 && handle == -1; ++attempt) {
    port = tolm::test::ServerPort();
    Tolm::Net::ServerTable::Instance().Start(
        handle, "127.0.0.1", port, [](auto, const auto&) {}, options);
  }
  if (CHttpServer::SetWebSocketServerCallBack(handle, Print) != 0) return 1;
  std::printf("port %d\n", static_cast<int>(port));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return CHttpServer::StopServer(handle);
} catch (const std::exception& error) {
  std::fprintf(stderr, "net_echo: %s\n", error.what());
  return 1;
}
