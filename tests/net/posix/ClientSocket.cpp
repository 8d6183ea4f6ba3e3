#include "ClientSocket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace tolm::test {
namespace {

int Descriptor(ClientSocket socket) {
  return static_cast<int>(socket);
}

bool WaitReady(ClientSocket socket, short what, std::chrono::milliseconds limit) {
  pollfd waiting{Descriptor(socket), what, 0};
  return ::poll(&waiting, 1, static_cast<int>(limit.count())) == 1;
}

}  // namespace

const char kPortIsTaken[] = "Address already in use";

ClientSocket Connect(std::uint16_t port, int receive_buffer) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return kNoClientSocket;
  if (receive_buffer > 0) {
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return socket;
  ::close(socket);
  return kNoClientSocket;
}

bool WaitForInput(ClientSocket socket, std::chrono::milliseconds limit) {
  return WaitReady(socket, POLLIN, limit);
}

bool WaitForRoom(ClientSocket socket, std::chrono::milliseconds limit) {
  return WaitReady(socket, POLLOUT, limit);
}

std::ptrdiff_t SendSome(ClientSocket socket, std::string_view bytes) {
  const ssize_t sent = ::send(Descriptor(socket), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 && errno == EAGAIN ? 0 : sent;
}

std::ptrdiff_t Receive(ClientSocket socket, char* buffer, std::size_t size) {
  return ::recv(Descriptor(socket), buffer, size, 0);
}

void ResetOnClose(ClientSocket socket) {
  const linger at_once{1, 0};
  ::setsockopt(Descriptor(socket), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void CloseSocket(ClientSocket socket) {
  ::close(Descriptor(socket));
}

}  // namespace tolm::test
