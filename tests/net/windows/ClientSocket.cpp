#include "ClientSocket.h"

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <algorithm>
#include <climits>
#include <mutex>

namespace tolm::test {
namespace {

SOCKET Native(ClientSocket socket) {
  return static_cast<SOCKET>(socket);
}

bool WaitReady(ClientSocket socket, SHORT what, std::chrono::milliseconds limit) {
  WSAPOLLFD waiting{Native(socket), what, 0};
  return ::WSAPoll(&waiting, 1, static_cast<int>(limit.count())) == 1;
}

SOCKET NewSocket() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
  });
  return ::WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                      WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

}  // namespace

const char kPortIsTaken[] = "(10048)";

// Non-blocking once it is connected: there is no sending that does not wait otherwise.
ClientSocket Connect(std::uint16_t port, int receive_buffer) {
  const SOCKET socket = NewSocket();
  if (socket == INVALID_SOCKET) return kNoClientSocket;
  if (receive_buffer > 0) {
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&receive_buffer),
                 sizeof receive_buffer);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  u_long on = 1;
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0) {
    return static_cast<ClientSocket>(socket);
  }
  ::closesocket(socket);
  return kNoClientSocket;
}

bool WaitForInput(ClientSocket socket, std::chrono::milliseconds limit) {
  return WaitReady(socket, POLLIN, limit);
}

bool WaitForRoom(ClientSocket socket, std::chrono::milliseconds limit) {
  return WaitReady(socket, POLLOUT, limit);
}

std::ptrdiff_t SendSome(ClientSocket socket, std::string_view bytes) {
  const int asked = static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
  const int sent = ::send(Native(socket), bytes.data(), asked, 0);
  return sent < 0 && ::WSAGetLastError() == WSAEWOULDBLOCK ? 0 : sent;
}

std::ptrdiff_t Receive(ClientSocket socket, char* buffer, std::size_t size) {
  return ::recv(Native(socket), buffer, static_cast<int>(std::min<std::size_t>(size, INT_MAX)), 0);
}

void ResetOnClose(ClientSocket socket) {
  const linger at_once{1, 0};
  ::setsockopt(Native(socket), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
               sizeof at_once);
}

void CloseSocket(ClientSocket socket) {
  ::closesocket(Native(socket));
}

}  // namespace tolm::test
