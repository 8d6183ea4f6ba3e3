#include "LoopbackSocket.h"

#include <winsock2.h>

#include <stdexcept>

namespace tolm::test {
namespace {

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  address.sin_port = ::htons(port);
  return address;
}

SOCKET Native(std::intptr_t native) {
  return static_cast<SOCKET>(native);
}

void Require(bool done) {
  if (!done) throw std::runtime_error("the system refuses a socket");
}

/// For as long as the process lives.
void BeginSockets() {
  static const bool has_begun = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  Require(has_begun);
}

}  // namespace

LoopbackSocket::LoopbackSocket(std::intptr_t native) : native_(native) {
  Require(native_ != kNone);
}

LoopbackSocket LoopbackSocket::Made(Kind kind) {
  BeginSockets();
  const SOCKET made = ::socket(AF_INET, kind == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM, 0);
  return LoopbackSocket(static_cast<std::intptr_t>(made));
}

LoopbackSocket LoopbackSocket::Bound(Kind kind) {
  LoopbackSocket made = Made(kind);
  const sockaddr_in address = Loopback(0);
  Require(::bind(Native(made.native_), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  return made;
}

LoopbackSocket LoopbackSocket::Listening() {
  LoopbackSocket made = Bound(Kind::kTcp);
  Require(::listen(Native(made.native_), 5) == 0);
  return made;
}

LoopbackSocket LoopbackSocket::Connected(std::uint16_t port) {
  LoopbackSocket made = Made(Kind::kTcp);
  made.ConnectTo(port);
  return made;
}

LoopbackSocket LoopbackSocket::Accepted() const {
  return LoopbackSocket(static_cast<std::intptr_t>(::accept(Native(native_), nullptr, nullptr)));
}

void LoopbackSocket::ConnectTo(std::uint16_t port) const {
  const sockaddr_in address = Loopback(port);
  Require(::connect(Native(native_), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
}

bool LoopbackSocket::WaitForEnd() const {
  char nothing = 0;
  return ::recv(Native(native_), &nothing, 1, 0) == 0;
}

void LoopbackSocket::Close() {
  if (native_ != kNone) ::closesocket(Native(native_));
  native_ = kNone;
}

std::uint16_t LoopbackSocket::port() const {
  sockaddr_in address{};
  int size = sizeof address;
  Require(::getsockname(Native(native_), reinterpret_cast<sockaddr*>(&address), &size) == 0);
  return ::ntohs(address.sin_port);
}

}  // namespace tolm::test
