#include "Roles.h"

#include <unistd.h>
#include <chrono>
#include <cstdlib>

namespace bench {
namespace {

constexpr auto kLongest = std::chrono::seconds(30);

}  // namespace

void Serve(Counter& counter) {
  Channel channel(ParentDescriptor());
  channel.Answer();
  while (const auto order = channel.Receive()) {
    counter.ExpectMore(order->count);
    channel.Answer();
    // Without the second answer the measuring process sees that something is wrong.
    if (!counter.Wait(kLongest)) return;
    channel.Answer();
  }
}

// The process is part of the name because a route may be opened again by another one of the same run.
std::string NewEndpoint(const std::string& name) {
  return RuntimeFolder::Path() + "/" + name + "-" + std::to_string(::getpid());
}

Processes::Processes(const std::string& name, bool routed)
    : front_(NewEndpoint(name + "-front")),
      back_(NewEndpoint(name)),
      server_({"--role", "server", "--endpoint", back_}) {
  server_.channel().TakeAnswer();
  if (!routed) return;
  router_.emplace(std::vector<std::string>{"--role", "router", "--endpoint", front_, "--behind", back_});
  router_->channel().TakeAnswer();
}

}  // namespace bench
