// Who comes from another one of this machine's own addresses: a port that a guard has at 127.0.0.1 is free
// there, so that the system's answer about the guard would be taken for one about a stranger.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "ServerEnd.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;

sockaddr_in Address(const char* ip, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, ip, &address.sin_addr);
  return address;
}

/// A connection to the server from an address, and a port of it.
class From {
 public:
  From(const char* ip, std::uint16_t port, std::uint16_t server_port)
      : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in own = Address(ip, port);
    const sockaddr_in server = Address("127.0.0.1", server_port);
    connected_ = ::bind(socket_, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 &&
                 ::connect(socket_, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0;
  }
  ~From() { ::close(socket_); }
  From(const From&) = delete;
  From& operator=(const From&) = delete;

  bool connected() const { return connected_; }
  std::uint16_t port() const {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
  }
  /// The first line of the answer to an upgrade.
  std::string Upgrade() {
    const std::string request = UpgradeRequestBytes();
    ::send(socket_, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    char byte = 0;
    pollfd watched{socket_, POLLIN, 0};
    while (answer.find("\r\n") == std::string::npos && ::poll(&watched, 1, 10'000) == 1 &&
           ::recv(socket_, &byte, 1, 0) == 1) {
      answer += byte;
    }
    return answer.substr(0, 12);
  }

 private:
  const int socket_;
  bool connected_ = false;
};

TEST(NetOtherAddress, IsForbiddenAlsoWithThePortThatAGuardHasAtTheUsualOne) {
  ServerEnd server;
  From guard("127.0.0.1", 0, server.port());
  ASSERT_TRUE(guard.connected());
  EXPECT_EQ(guard.Upgrade(), "HTTP/1.1 101");
  From stranger("127.0.0.2", guard.port(), server.port());
  ASSERT_TRUE(stranger.connected());
  EXPECT_EQ(stranger.Upgrade(), "HTTP/1.1 403");
  EXPECT_EQ(server.CountOf(kWebsocketHandshake), 1u);
}

}  // namespace
}  // namespace tolm::test
