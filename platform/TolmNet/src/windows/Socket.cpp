#include "Socket.h"

#include <algorithm>
#include <climits>
#include <mutex>
#include <system_error>

#include "WinSock.h"

namespace Tolm::Net {
namespace {

// Never undone: somebody else in the process may rely on it by then.
void StartWinSock() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
  });
}

bool MakeNonBlocking(SOCKET socket) {
  u_long on = 1;
  return ::ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0;
}

// With its number: not every system that runs Windows programs has texts for these.
std::string SystemText(const char* doing, int error) {
  return std::string(doing) + ": " + std::system_category().message(error) + " (" + std::to_string(error) +
         ")";
}

}  // namespace

SOCKET NewSocket(int type, int protocol) {
  StartWinSock();
  const SOCKET socket =
      ::WSASocketW(AF_INET, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (socket == INVALID_SOCKET || MakeNonBlocking(socket)) return socket;
  const int error = ::WSAGetLastError();
  ::closesocket(socket);
  ::WSASetLastError(error);
  return INVALID_SOCKET;
}

sockaddr_in ToSystem(const SocketAddress& address) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = ::htons(address.port);
  result.sin_addr.s_addr = ::htonl(address.ip);
  return result;
}

SocketAddress FromSystem(const sockaddr_in& address) {
  return {::ntohl(address.sin_addr.s_addr), ::ntohs(address.sin_port)};
}

bool ParseIp(const std::string& text, std::uint32_t& ip) {
  StartWinSock();
  in_addr parsed{};
  if (text.find('\0') != std::string::npos || ::inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
  ip = ::ntohl(parsed.s_addr);
  return true;
}

std::string IpText(std::uint32_t ip) {
  StartWinSock();
  char text[INET_ADDRSTRLEN] = {};
  in_addr address{};
  address.s_addr = ::htonl(ip);
  return ::inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

Socket Listen(const SocketAddress& address, std::string& error) {
  const SOCKET listener = NewSocket(SOCK_STREAM, IPPROTO_TCP);
  if (listener == INVALID_SOCKET) {
    error = SystemText("socket", ::WSAGetLastError());
    return kNoSocket;
  }
  // Reusing addresses would let others listen on this port as well, and take clients away; past connections
  // of an earlier server do not hold a port anyway.
  const int on = 1;
  const sockaddr_in name = ToSystem(address);
  const char* doing = "setsockopt";
  if (::setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
                   sizeof on) == 0) {
    doing = "bind";
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
      doing = "listen";
      if (::listen(listener, SOMAXCONN) == 0) return static_cast<Socket>(listener);
    }
  }
  error = SystemText(doing, ::WSAGetLastError());
  ::closesocket(listener);
  return kNoSocket;
}

AcceptResult Accept(Socket listener, Accepted& accepted, std::string& error) {
  for (;;) {
    sockaddr_in peer{};
    int size = sizeof peer;
    const SOCKET socket = ::accept(Native(listener), reinterpret_cast<sockaddr*>(&peer), &size);
    if (socket != INVALID_SOCKET) {
      sockaddr_in local{};
      size = sizeof local;
      // There is no accepting that makes a handle that is not inherited, so it is done as early as possible.
      if (!::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0) ||
          !MakeNonBlocking(socket) ||
          ::getsockname(socket, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
        ::closesocket(socket);
        continue;
      }
      // Messages are small and each is waited for.
      const int on = 1;
      ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
      accepted = {static_cast<Socket>(socket), FromSystem(local), FromSystem(peer)};
      return AcceptResult::kAccepted;
    }
    const int fault = ::WSAGetLastError();
    switch (fault) {
      case WSAEWOULDBLOCK:
        return AcceptResult::kNobody;
      case WSAEINTR:
      case WSAECONNABORTED:
      case WSAECONNRESET:
        continue;  // that one is gone; the next one may wait
      default:
        // A shortage (WSAEMFILE, WSAENOBUFS), or whatever must not be asked for again at once.
        error = SystemText("accept", fault);
        return AcceptResult::kShortage;
    }
  }
}

std::ptrdiff_t Send(Socket socket, const char* data, std::size_t size) {
  const int asked = static_cast<int>(std::min<std::size_t>(size, INT_MAX));
  const int sent = ::send(Native(socket), data, asked, 0);
  if (sent >= 0) return sent;
  const int error = ::WSAGetLastError();
  return error == WSAEWOULDBLOCK || error == WSAENOBUFS ? 0 : -1;
}

void EndSending(Socket socket) {
  ::shutdown(Native(socket), SD_SEND);
}

void Close(Socket socket) {
  ::closesocket(Native(socket));
}

}  // namespace Tolm::Net
