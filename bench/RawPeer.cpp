#include "RawPeer.h"

#include <algorithm>
#include <stdexcept>

#include "Samples.h"

namespace bench {
namespace {

constexpr std::size_t kSinkBuffer = 64u << 10;

void MustRead(Channel& channel, char* data, std::size_t size) {
  if (!channel.Read(data, size)) throw std::runtime_error("the bare stream's other side ended");
}

struct Exchanged {
  std::size_t in;
  std::size_t out;
};

Exchanged BytesOf(const Order& order) {
  switch (order.task) {
    case Task::kRawAnswer:
      return {order.size, 1};
    case Task::kRawSource:
      return {1, order.size};
    case Task::kRawGroups:
      return {order.size * kGroup, 1};
    default:
      return {order.size, order.size};
  }
}

}  // namespace

std::vector<double> RawPeer::Exchange(Task task, std::size_t there, std::size_t back, std::size_t size,
                                      std::size_t count) {
  std::string buffer(std::max(there, back), 'x');
  std::vector<double> samples;
  samples.reserve(count);
  Channel& channel = peer_.channel();
  channel.Send({task, static_cast<std::uint32_t>(size), count});
  for (std::size_t i = 0; i < count; ++i) {
    samples.push_back(Microseconds([&] {
      channel.Write(buffer.data(), there);
      MustRead(channel, buffer.data(), back);
    }));
  }
  return samples;
}

std::vector<double> RawPeer::PingPong(std::size_t size, std::size_t count) {
  return Exchange(Task::kRawEcho, size, size, size, count);
}

std::vector<double> RawPeer::There(std::size_t size, std::size_t count) {
  return Exchange(Task::kRawAnswer, size, 1, size, count);
}

std::vector<double> RawPeer::Back(std::size_t size, std::size_t count) {
  return Exchange(Task::kRawSource, 1, size, size, count);
}

double RawPeer::WritesPerSecond(std::size_t size, std::size_t count) {
  const std::string frame(size, 'x');
  Channel& channel = peer_.channel();
  const auto begin = Clock::now();
  channel.Send({Task::kRawSink, static_cast<std::uint32_t>(size), count});
  for (std::size_t i = 0; i < count; ++i) channel.Write(frame.data(), frame.size());
  char done = 0;
  MustRead(channel, &done, 1);
  return static_cast<double>(count) / SecondsSince(begin);
}

double RawPeer::GroupedWritesPerSecond(std::size_t size, std::size_t groups) {
  const std::string frame(size, 'x');
  Channel& channel = peer_.channel();
  const auto begin = Clock::now();
  channel.Send({Task::kRawGroups, static_cast<std::uint32_t>(size), groups});
  for (std::size_t group = 0; group < groups; ++group) {
    for (std::size_t i = 0; i < kGroup; ++i) channel.Write(frame.data(), frame.size());
    char done = 0;
    MustRead(channel, &done, 1);
  }
  return static_cast<double>(groups * kGroup) / SecondsSince(begin);
}

int RunRawRole() {
  Channel channel(ParentDescriptor());
  // Kept, so that no exchange waits for memory.
  std::string buffer(kSinkBuffer, 'x');
  while (const auto order = channel.Receive()) {
    if (order->task == Task::kRawSink) {
      for (std::uint64_t left = order->size * order->count; left > 0;) {
        const std::size_t part = std::min<std::uint64_t>(left, kSinkBuffer);
        MustRead(channel, buffer.data(), part);
        left -= part;
      }
      channel.Write(buffer.data(), 1);
      continue;
    }
    const auto [in, out] = BytesOf(*order);
    buffer.resize(std::max({buffer.size(), in, out}), 'x');
    for (std::uint64_t i = 0; i < order->count; ++i) {
      MustRead(channel, buffer.data(), in);
      channel.Write(buffer.data(), out);
    }
  }
  return 0;
}

}  // namespace bench
