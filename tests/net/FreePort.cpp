#include "FreePort.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tolm::test {

std::uint16_t FreePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool found = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                     ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  ::close(socket);
  if (!found) throw std::runtime_error("there is no free port");
  return ntohs(address.sin_port);
}

}  // namespace tolm::test
