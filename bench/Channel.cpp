#include "Channel.h"

#include <stdexcept>

namespace bench {
namespace {

template <typename T>
void WriteValue(Channel& channel, const T& value) {
  channel.Write(reinterpret_cast<const char*>(&value), sizeof value);
}

template <typename T>
bool ReadValue(Channel& channel, T& value) {
  return channel.Read(reinterpret_cast<char*>(&value), sizeof value);
}

}  // namespace

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
  AwaitInput();
  std::uint64_t count = 0;
  if (!ReadValue(*this, count)) throw std::runtime_error("a child ended, or could not do what it was told");
  std::vector<double> samples(count);
  if (!Read(reinterpret_cast<char*>(samples.data()), count * sizeof(double))) {
    throw std::runtime_error("a child ended in its answer");
  }
  return samples;
}

void Channel::Say(const std::string& text) {
  WriteValue(*this, std::uint64_t{text.size()});
  Write(text.data(), text.size());
}

std::string Channel::TakeText() {
  std::uint64_t size = 0;
  if (!ReadValue(*this, size)) throw std::runtime_error("the measuring process ended too soon");
  std::string text(size, '\0');
  if (!Read(text.data(), size)) throw std::runtime_error("the measuring process ended in its report");
  return text;
}

}  // namespace bench
