#include "pressure/ManyGuards.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <utility>

#include "traffic/Time.h"

namespace trust {
namespace {

constexpr char kRequest[] =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
constexpr char kLetIn[] = "HTTP/1.1 101 ";
constexpr int kLookMs = 20;
constexpr std::size_t kTurnOfRounds = 5;

}  // namespace

ManyGuards::ManyGuards(int count, std::uint16_t port)
    : connections_(static_cast<std::size_t>(count)), thread_([this, port] { Run(port); }) {}

ManyGuards::~ManyGuards() {
  ends_ = true;
  thread_.join();
  for (Connection& connection : connections_) Close(connection);
}

void ManyGuards::Run(std::uint16_t port) {
  std::vector<pollfd> watched(connections_.size());
  for (std::size_t round = 0; !ends_; ++round) {
    if (takes_turns_ && round % kTurnOfRounds == 0) CloseOne(round / kTurnOfRounds);
    for (std::size_t i = 0; i < connections_.size(); ++i) {
      if (connections_[i].socket < 0) Connect(connections_[i], port);
      const short wanted = connections_[i].asked ? POLLIN : POLLOUT;
      watched[i] = {connections_[i].socket, wanted, 0};
    }
    ::poll(watched.data(), watched.size(), kLookMs);
    for (std::size_t i = 0; i < connections_.size(); ++i) {
      if (watched[i].revents != 0) Follow(connections_[i], watched[i].revents);
    }
    // Who was not let in does not come again at once.
    Spend(std::chrono::milliseconds(kLookMs));
  }
}

void ManyGuards::Connect(Connection& connection, std::uint16_t port) {
  connection = {};
  connection.socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  ::connect(connection.socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

void ManyGuards::Follow(Connection& connection, short events) {
  if (!connection.asked) {
    constexpr std::size_t kSize = sizeof kRequest - 1;
    if ((events & POLLERR) != 0 ||
        ::send(connection.socket, kRequest, kSize, MSG_NOSIGNAL) != ssize_t{kSize}) {
      return Close(connection);
    }
    connection.asked = true;
    return;
  }
  std::array<char, 4096> bytes{};
  const ssize_t size = ::recv(connection.socket, bytes.data(), bytes.size(), 0);
  if (size <= 0) return Close(connection);
  const bool was_in = connection.answer.starts_with(kLetIn);
  if (was_in) return;
  connection.answer.append(bytes.data(), static_cast<std::size_t>(size));
  if (connection.answer.starts_with(kLetIn)) ++connected_;
}

// One of those that were let in.
void ManyGuards::CloseOne(std::size_t number) {
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    Connection& connection = connections_[(number + i) % connections_.size()];
    if (connection.answer.starts_with(kLetIn)) return Close(connection);
  }
}

void ManyGuards::Close(Connection& connection) {
  if (connection.socket < 0) return;
  if (connection.answer.starts_with(kLetIn)) --connected_;
  ::close(std::exchange(connection.socket, -1));
  connection.answer.clear();
}

}  // namespace trust
