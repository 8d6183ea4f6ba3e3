#include "Channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

constexpr int kAnswerMs = 60'000;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Channel::~Channel() {
  ::close(static_cast<int>(descriptor_));
}

void Channel::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(static_cast<int>(descriptor_), data, size);
    if (written < 0) Fail("writing to a child or parent failed");
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

bool Channel::Read(char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t got = ::read(static_cast<int>(descriptor_), data, size);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return false;
    if (got < 0) Fail("reading from a child or parent failed");
    data += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void Channel::AwaitInput() const {
  pollfd watched{static_cast<int>(descriptor_), POLLIN, 0};
  if (::poll(&watched, 1, kAnswerMs) <= 0) throw std::runtime_error("a child did not answer in time");
}

}  // namespace bench
