#include "WakeSocket.h"

namespace Tolm::Net {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;

// Connected to its own address, the system drops what others send to it.
bool ConnectToItself(SOCKET socket) {
  const int on = 1;
  sockaddr_in name = ToSystem({kLoopback, 0});
  auto* const generic = reinterpret_cast<sockaddr*>(&name);
  int size = sizeof name;
  return ::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
                      sizeof on) == 0 &&
         ::bind(socket, generic, size) == 0 && ::getsockname(socket, generic, &size) == 0 &&
         ::connect(socket, generic, size) == 0;
}

}  // namespace

WakeSocket::WakeSocket() : socket_(NewSocket(SOCK_DGRAM, IPPROTO_UDP)) {
  if (socket_ == INVALID_SOCKET || ConnectToItself(socket_)) return;
  ::closesocket(socket_);
  socket_ = INVALID_SOCKET;
}

WakeSocket::~WakeSocket() {
  if (socket_ != INVALID_SOCKET) ::closesocket(socket_);
}

// When there is no room, what is there wakes as well.
void WakeSocket::Ring() {
  ::send(socket_, "!", 1, 0);
}

void WakeSocket::Drain() {
  char byte = 0;
  while (::recv(socket_, &byte, 1, 0) > 0) {
  }
}

}  // namespace Tolm::Net
