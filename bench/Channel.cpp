#include "Channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bench {
namespace {

constexpr int kAnswerMs = 60'000;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

template <typename T>
void WriteValue(Channel& channel, const T& value) {
  channel.Write(reinterpret_cast<const char*>(&value), sizeof value);
}

template <typename T>
bool ReadValue(Channel& channel, T& value) {
  return channel.Read(reinterpret_cast<char*>(&value), sizeof value);
}

}  // namespace

Channel::~Channel() {
  ::close(descriptor_);
}

void Channel::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(descriptor_, data, size);
    if (written < 0) Fail("writing to a child or parent failed");
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

bool Channel::Read(char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t got = ::read(descriptor_, data, size);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return false;
    if (got < 0) Fail("reading from a child or parent failed");
    data += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void Channel::Send(const Order& order) {
  WriteValue(*this, order);
}

std::optional<Order> Channel::Receive() {
  Order order;
  if (!ReadValue(*this, order)) return std::nullopt;
  return order;
}

void Channel::Answer(const std::vector<double>& samples) {
  WriteValue(*this, std::uint64_t{samples.size()});
  Write(reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(double));
}

std::vector<double> Channel::TakeAnswer() {
  pollfd watched{descriptor_, POLLIN, 0};
  if (::poll(&watched, 1, kAnswerMs) <= 0) throw std::runtime_error("a child did not answer in time");
  std::uint64_t count = 0;
  if (!ReadValue(*this, count)) throw std::runtime_error("a child ended, or could not do what it was told");
  std::vector<double> samples(count);
  if (!Read(reinterpret_cast<char*>(samples.data()), count * sizeof(double))) {
    throw std::runtime_error("a child ended in its answer");
  }
  return samples;
}

}  // namespace bench
