#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "TolmLPCFrameDiagnostics.h"
#include "TolmPlugin/Plugin.h"
#include "soak/Traffic.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr int kTimeOutMs = 20'000;
// More than any pool of the frame has threads.
constexpr int kCallers = 64;
constexpr std::uint64_t kThreadsOfAPool = 30;
constexpr int kLargeAtOnce = 16;
constexpr int kLargeEach = 24;

template <typename Act>
void AtOnce(int count, const Act& act) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(act);
  for (std::thread& thread : threads) thread.join();
}

// While it lives, the threads that sort what arrives stay where they say so in the log: those that wait for
// nothing are made only when all others are late.
class HeldSorters {
 public:
  HeldSorters() {
    holds_ = true;
    TolmLPCFrame::SetLogSink(&HeldSorters::OnLine, nullptr);
    TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogTrace);
  }
  ~HeldSorters() {
    holds_ = false;
    TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogInformation);
    TolmLPCFrame::SetLogSink(nullptr, nullptr);
  }
  HeldSorters(const HeldSorters&) = delete;
  HeldSorters& operator=(const HeldSorters&) = delete;
  static std::uint64_t Count() { return count_; }

 private:
  static void OnLine(int /*level*/, const char* /*tag*/, const char* /*text*/, void* /*user*/) {
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    if (!holds_ || std::string_view(name) != "LpcNetCallBack") return;
    ++count_;
    while (holds_) Spend(std::chrono::milliseconds(1));
  }

  static inline std::atomic<bool> holds_{false};
  static inline std::atomic<std::uint64_t> count_{0};
};

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

  {
    HeldSorters held;
    for (int i = 0; i < kCallers; ++i) {
      if (caller.Notify({.url = kHostCount})) ++sent.to_host;
    }
    if (!Await(20, [] { return HeldSorters::Count() >= kThreadsOfAPool; })) {
      throw std::runtime_error("what arrives is not sorted");
    }
  }
  const std::uint64_t before = sent.to_host;
  Await(20, [&] { return host.notified() >= before; });

  host.Hold(true);
  for (int i = 0; i < kCallers; ++i) {
    if (caller.Notify({.url = kHostCount})) ++sent.to_host;
  }
  const bool all_busy = Await(20, [&] { return host.notified() >= before + kThreadsOfAPool; });
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
