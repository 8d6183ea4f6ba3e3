// A hundred threads call several plugins when the frame is stopped.

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "pressure/Cases.h"
#include "support/Figures.h"
#include "traffic/Host.h"
#include "traffic/PluginProcess.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr int kThreads = 100;
constexpr int kTimeOutMs = 3000;
// A stop waits 3 s for the guard's echo, which nobody sends here, and another second for the plugins. It must
// not come to the 10 s that it has for their "UninitFinish". In a short run it may.
constexpr double kLongestStop = 8;
constexpr double kLongestStopQuick = 16;
// No call waits for its time-out: who is called answers, or is seen to be gone.
constexpr double kLongestCallMs = 2000;

struct Tally {
  std::mutex mutex;
  std::uint64_t answered = 0;
  std::map<int, std::uint64_t> failed;  // by code
  std::uint64_t unexplained = 0;
  double longest = 0;
};

// What a call may end with when the frame is stopped meanwhile. 0: the frame itself refused, since the url or
// its plugin is not known any more; no transport was asked.
bool IsExplained(int code) {
  switch (code) {
    case lpc::kOk:
    case lpc::kNotInitialised:
    case lpc::kNoSuchPeer:
    case lpc::kPeerGone:
    case lpc::kTimeOut:
    case lpc::kRefused:
      return true;
    default:
      return false;
  }
}

}  // namespace

void StopInTheMiddle(const PressureSettings& settings) {
  std::vector<std::string> ids{"alpha", "beta", "gamma"};
  std::vector<std::unique_ptr<PluginProcess>> plugins;
  for (const std::string& id : ids) plugins.push_back(std::make_unique<PluginProcess>(id));
  Host host("stop", ids);
  for (const auto& plugin : plugins) {
    plugin->Start(host.endpoint());
    host.AwaitInited(plugin->id());
  }
  Tally tally;
  std::atomic<int> running{0};
  std::atomic<bool> stopped{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      // A third of them waits for answers that take their time, so that calls are under way whenever it
      // stops.
      const bool slow = i % 3 == 0;
      const std::string url =
          plugins[static_cast<std::size_t>(i) % plugins.size()]->Url(slow ? "slow" : "echo");
      const std::string body = slow ? "50" : std::string(500, 's');
      ++running;
      // A few calls behind the stop as well.
      for (int after = 0; after < 3; after += stopped ? 1 : 0) {
        const Outcome outcome = host.Call(url, body, kTimeOutMs);
        const std::lock_guard lock(tally.mutex);
        tally.longest = std::max(tally.longest, outcome.microseconds);
        if (outcome.answered) {
          ++tally.answered;
          if (outcome.body != body) ++tally.unexplained;
          continue;
        }
        ++tally.failed[outcome.code];
        if (!IsExplained(outcome.code)) ++tally.unexplained;
      }
    });
  }
  Await(60, [&] { return running == kThreads; });
  Spend(std::chrono::milliseconds(settings.quick ? 200 : 1000));
  const auto begin = bench::Clock::now();
  const int result = host.Stop();
  const double stop_took = bench::SecondsSince(begin);
  stopped = true;
  for (std::thread& thread : threads) thread.join();
  const double threads_took = bench::SecondsSince(begin) - stop_took;

  std::uint64_t failed = 0;
  for (const auto& [code, count] : tally.failed) {
    failed += count;
    PrintFigure("pressure.stop_in_the_middle.ended_with_code_" + std::to_string(code),
                static_cast<double>(count), "calls");
  }
  PrintFigure("pressure.stop_in_the_middle.answered", static_cast<double>(tally.answered), "calls",
              Bound::kAtLeast, kThreads);
  PrintFigure("pressure.stop_in_the_middle.failed", static_cast<double>(failed), "calls", Bound::kAtLeast,
              kThreads);
  PrintFigure("pressure.stop_in_the_middle.unexplained", static_cast<double>(tally.unexplained), "calls",
              Bound::kExactly, 0);
  PrintFigure("pressure.stop_in_the_middle.longest_call", tally.longest / 1000, "ms", Bound::kAtMost,
              settings.quick ? kTimeOutMs + 1000 : kLongestCallMs);
  PrintFigure("pressure.stop_in_the_middle.stop_result", result, "result", Bound::kExactly, 0);
  PrintFigure("pressure.stop_in_the_middle.stop_took", stop_took, "s", Bound::kAtMost,
              settings.quick ? kLongestStopQuick : kLongestStop);
  PrintFigure("pressure.stop_in_the_middle.threads_ended_within", threads_took, "s", Bound::kAtMost, 1);
}

}  // namespace trust
