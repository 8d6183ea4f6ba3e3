#include "Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Tolm::Net {
namespace {

sockaddr_in ToSystem(const SocketAddress& address) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(address.port);
  result.sin_addr.s_addr = htonl(address.ip);
  return result;
}

SocketAddress FromSystem(const sockaddr_in& address) {
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

int Descriptor(Socket socket) {
  return static_cast<int>(socket);
}

std::string SystemText(const char* doing, int error) {
  return std::string(doing) + ": " + std::system_category().message(error);
}

/// Leaves the reason in errno.
bool HasTwoDescriptors(int any) {
  const int first = ::fcntl(any, F_DUPFD_CLOEXEC, 0);
  const int second = first < 0 ? -1 : ::fcntl(any, F_DUPFD_CLOEXEC, 0);
  const int why = errno;
  if (first >= 0) ::close(first);
  if (second >= 0) ::close(second);
  errno = why;
  return second >= 0;
}

}  // namespace

bool ParseIp(const std::string& text, std::uint32_t& ip) {
  in_addr parsed{};
  if (text.find('\0') != std::string::npos || ::inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
  ip = ntohl(parsed.s_addr);
  return true;
}

std::string IpText(std::uint32_t ip) {
  char text[INET_ADDRSTRLEN] = {};
  const in_addr address{htonl(ip)};
  return ::inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

Socket Listen(const SocketAddress& address, std::string& error) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    error = SystemText("socket", errno);
    return kNoSocket;
  }
  // Past connections of an earlier server do not hold the port; another listener still does.
  const int on = 1;
  const sockaddr_in name = ToSystem(address);
  const char* doing = "setsockopt";
  if (::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0) {
    doing = "bind";
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
      doing = "listen";
      if (::listen(listener, SOMAXCONN) == 0) return listener;
    }
  }
  error = SystemText(doing, errno);
  ::close(listener);
  return kNoSocket;
}

AcceptResult Accept(Socket listener, Accepted& accepted, std::string& error) {
  // Who is accepted is then asked for in the system's table, which takes a descriptor, too: with the last one
  // he would be refused as a stranger.
  if (!HasTwoDescriptors(Descriptor(listener))) {
    error = SystemText("accept", errno);
    return AcceptResult::kShortage;
  }
  for (;;) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int socket = ::accept4(Descriptor(listener), reinterpret_cast<sockaddr*>(&peer), &size,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0) {
      sockaddr_in local{};
      size = sizeof local;
      if (::getsockname(socket, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
        ::close(socket);
        continue;
      }
      // Messages are small and each is waited for.
      const int on = 1;
      ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      accepted = {socket, FromSystem(local), FromSystem(peer)};
      return AcceptResult::kAccepted;
    }
    switch (errno) {
      case EAGAIN:
        return AcceptResult::kNobody;
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        error = SystemText("accept", errno);
        return AcceptResult::kShortage;
      case EINTR:
      case ECONNABORTED:
      case EPROTO:
      case EPERM:
        continue;  // that one is gone; the next one may wait
      default:
        // Whatever it is, it must not be asked for again at once.
        error = SystemText("accept", errno);
        return AcceptResult::kShortage;
    }
  }
}

std::ptrdiff_t Send(Socket socket, const char* data, std::size_t size) {
  for (;;) {
    const ssize_t sent = ::send(Descriptor(socket), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) return sent;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? 0 : -1;
  }
}

void EndSending(Socket socket) {
  ::shutdown(Descriptor(socket), SHUT_WR);
}

void Close(Socket socket) {
  ::close(Descriptor(socket));
}

}  // namespace Tolm::Net
