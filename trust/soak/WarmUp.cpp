#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TolmPlugin/Plugin.h"
#include "soak/Traffic.h"

namespace trust {
namespace {

constexpr int kTimeOutMs = 20'000;
// More than any pool of the frame has threads.
constexpr int kCallers = 64;
constexpr std::uint64_t kThreadsOfAPool = 30;
constexpr int kLargeAtOnce = 16;
constexpr int kLargeEach = 4;

template <typename Act>
void AtOnce(int count, const Act& act) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(act);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

void WarmUp(Host& host, Sent& sent) {
  TolmPlugin::Plugin caller("gamma");
  if (!caller.Start(host.endpoint()) || !caller.WaitReady(kTimeOutMs)) {
    throw std::runtime_error("the plugin gamma is not ready");
  }
  AtOnce(kCallers, [&] {
    TolmPlugin::Message answer;
    caller.Call(answer, {.url = "/beta/slow", .body = "300"}, kTimeOutMs);
  });

  host.Hold(true);
  for (int i = 0; i < kCallers; ++i) {
    if (caller.Notify({.url = kHostCount})) ++sent.to_host;
  }
  const bool all_busy = Await(20, [&] { return host.notified() >= kThreadsOfAPool; });
  host.Hold(false);
  if (!all_busy) throw std::runtime_error("the host's callbacks do not come");

  const std::string large(8u << 20, 'w');
  AtOnce(kLargeAtOnce, [&] {
    for (int i = 0; i < kLargeEach; ++i) {
      TolmPlugin::Message answer;
      host.Call("/alpha/echo", large, kTimeOutMs);
      caller.Call(answer, {.url = kHostSize, .body = large}, kTimeOutMs);
    }
  });
}

}  // namespace trust
