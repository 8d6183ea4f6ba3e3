// A server for scripts: says its port, then each event as a line, until its input ends.
//
//   port 40123
//   7 handshake
//   7 text+ 5          (a plus: final; the length)
//   7 close
//
// usage: net_echo [--any-user]
//
// --any-user: for a client whose owner the system cannot tell, as when a Windows server runs beside a client
// that does not belong to that world.

#include <cstdio>
#include <exception>
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

void Print(std::int32_t socket, const WebsocketRecv& recv) {
  std::printf("%d %s", socket, Name(recv.type));
  if (recv.data != nullptr) std::printf("%c %u", recv.fin ? '+' : '-', recv.len);
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) try {
  Tolm::Net::ServerOptions options;
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
