#include "posix/Loopback.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <system_error>

namespace bench {
namespace {

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int MakeSocket() {
  const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) Fail("no TCP socket");
  return made;
}

sockaddr_in LoopbackAddress(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

bool Connect(int socket, std::uint16_t port) {
  const sockaddr_in address = LoopbackAddress(port);
  return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

int WithoutDelay(int socket) {
  const int on = 1;
  if (::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) Fail("TCP_NODELAY");
  return socket;
}

}  // namespace

Listener::Listener() : descriptor_(MakeSocket()) {
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (::bind(descriptor_, any, size) != 0 || ::listen(descriptor_, 8) != 0 ||
      ::getsockname(descriptor_, any, &size) != 0) {
    Fail("cannot listen on the loopback interface");
  }
  port_ = ntohs(address.sin_port);
}

Listener::~Listener() {
  ::close(descriptor_);
}

int Listener::Accept() const {
  const int accepted = ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
  if (accepted < 0) Fail("nobody connects");
  return WithoutDelay(accepted);
}

int ConnectTo(std::uint16_t port) {
  const int made = MakeSocket();
  if (!Connect(made, port)) Fail("cannot connect");
  return WithoutDelay(made);
}

std::uint16_t FreePort() {
  return Listener().port();
}

bool IsServed(std::uint16_t port) {
  const int probe = MakeSocket();
  const bool connected = Connect(probe, port);
  ::close(probe);
  return connected;
}

LoopbackPeer::LoopbackPeer(std::size_t there, std::size_t back)
    : peer_([this, there, back] {
        Channel channel(ConnectTo(listener_.port()));
        std::string in(there, 'x');
        const std::string out(back, 'x');
        while (channel.Read(in.data(), in.size())) channel.Write(out.data(), out.size());
      }),
      channel_(listener_.Accept()) {}

}  // namespace bench
