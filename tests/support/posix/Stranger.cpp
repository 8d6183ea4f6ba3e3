#include "support/posix/Stranger.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace tolm::test {
namespace {

constexpr int kLong = 30'000;

bool WriteLine(int channel, std::string_view line) {
  const std::string whole = std::string(line) + "\n";
  return ::send(channel, whole.data(), whole.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(whole.size());
}

/// Nothing when the other one is gone, or says nothing for long.
std::optional<std::string> ReadLine(int channel) {
  std::string line;
  for (char c = 0;;) {
    pollfd watched{channel, POLLIN, 0};
    if (::poll(&watched, 1, kLong) != 1 || ::read(channel, &c, 1) != 1) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

}  // namespace

bool Stranger::IsPossible() {
  return ::geteuid() == 0;
}

Stranger::Stranger(std::function<std::string(std::string_view)> act) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("no channel to a stranger");
  }
  id_ = ::fork();
  if (id_ == 0) {
    ::close(ends[0]);
    if (::setgroups(0, nullptr) != 0 || ::setresgid(kUser, kUser, kUser) != 0 ||
        ::setresuid(kUser, kUser, kUser) != 0) {
      ::_exit(1);
    }
    while (const auto question = ReadLine(ends[1])) {
      if (!WriteLine(ends[1], act(*question))) break;
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  channel_ = ends[0];
  if (id_ < 0) {
    ::close(channel_);
    throw std::runtime_error("no process for a stranger");
  }
}

Stranger::~Stranger() {
  ::close(channel_);
  ::kill(static_cast<pid_t>(id_), SIGKILL);
  ::waitpid(static_cast<pid_t>(id_), nullptr, 0);
}

std::string Stranger::Ask(std::string_view question) {
  if (!WriteLine(channel_, question)) return "gone";
  return ReadLine(channel_).value_or("gone");
}

std::string TryUnixSocket(const std::string& path, std::string_view words) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(socket);
    return "refused " + std::to_string(error);
  }
  [[maybe_unused]] const ssize_t told = ::send(socket, words.data(), words.size(), MSG_NOSIGNAL);
  std::size_t said = 0;
  for (;;) {
    char buffer[4096];
    pollfd watched{socket, POLLIN, 0};
    if (::poll(&watched, 1, kLong) != 1) {
      ::close(socket);
      return "still open";
    }
    const ssize_t got = ::read(socket, buffer, sizeof buffer);
    if (got <= 0) break;
    said += static_cast<std::size_t>(got);
  }
  ::close(socket);
  return "said " + std::to_string(said);
}

}  // namespace tolm::test
