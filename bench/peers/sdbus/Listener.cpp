#include "sdbus/Listener.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace bench::sdbus {
namespace {

constexpr int kBacklog = 128;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Listener::Listener(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long for a socket: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor_ < 0) Fail("no socket");
  if (::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(descriptor_, kBacklog) != 0) {
    Fail("cannot listen");
  }
}

Listener::~Listener() {
  ::close(descriptor_);
}

int Listener::Accept() const {
  const int client = ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) Fail("cannot accept");
  return client;
}

}  // namespace bench::sdbus
