#include "LoopbackSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tolm::test {
namespace {

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int Fd(std::intptr_t native) {
  return static_cast<int>(native);
}

void Require(bool done) {
  if (!done) throw std::runtime_error("the system refuses a socket");
}

}  // namespace

LoopbackSocket::LoopbackSocket(std::intptr_t native) : native_(native) {
  Require(native_ >= 0);
}

LoopbackSocket LoopbackSocket::Made(Kind kind) {
  return LoopbackSocket(::socket(AF_INET, (kind == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0));
}

LoopbackSocket LoopbackSocket::Bound(Kind kind) {
  LoopbackSocket made = Made(kind);
  const sockaddr_in address = Loopback(0);
  Require(::bind(Fd(made.native_), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  return made;
}

LoopbackSocket LoopbackSocket::Listening() {
  LoopbackSocket made = Bound(Kind::kTcp);
  Require(::listen(Fd(made.native_), 5) == 0);
  return made;
}

LoopbackSocket LoopbackSocket::Connected(std::uint16_t port) {
  LoopbackSocket made = Made(Kind::kTcp);
  made.ConnectTo(port);
  return made;
}

LoopbackSocket LoopbackSocket::Accepted() const {
  return LoopbackSocket(::accept4(Fd(native_), nullptr, nullptr, SOCK_CLOEXEC));
}

void LoopbackSocket::ConnectTo(std::uint16_t port) const {
  const sockaddr_in address = Loopback(port);
  Require(::connect(Fd(native_), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
}

bool LoopbackSocket::WaitForEnd() const {
  char nothing = 0;
  return ::recv(Fd(native_), &nothing, 1, 0) == 0;
}

void LoopbackSocket::Close() {
  if (native_ != kNone) ::close(Fd(native_));
  native_ = kNone;
}

std::uint16_t LoopbackSocket::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  Require(::getsockname(Fd(native_), reinterpret_cast<sockaddr*>(&address), &size) == 0);
  return ntohs(address.sin_port);
}

}  // namespace tolm::test
