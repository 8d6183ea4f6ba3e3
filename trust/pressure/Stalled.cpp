// A plugin process that is stopped with a signal reads nothing. Blocks of calls to others while it stands and
// while it works take turns; in the end it is left standing until the frame cuts it off.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcServer.h"
#include "pressure/Calls.h"
#include "pressure/Cases.h"
#include "support/Figures.h"
#include "traffic/PluginProcess.h"
#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr double kMiB = 1 << 20;
// A peer that takes nothing has 10 s.
constexpr double kCutWithin = 30;
constexpr std::size_t kMessage = 64u << 10;
// What max_queue_bytes allows, and what the system holds for a stream.
constexpr double kMostTaken = 64 + 2;
// What is queued, and what an allocator loses around it; a sanitizer keeps what was freed.
constexpr double kMostGrowth = TRUST_SANITIZED ? 1024 : 64 + 16;

// Sends to who reads nothing, now and then, while it lives.
class Knocking {
 public:
  explicit Knocking(const std::string& url)
      : thread_([this, url] {
          while (!ends_) {
            // The queue may have room for a small one still, which is then taken.
            const int code = Host::Notify(url, "knock");
            if (code != lpc::kOk && code != lpc::kQueueFull) ++others_;
            Spend(std::chrono::milliseconds(5));
          }
        }) {}
  ~Knocking() {
    ends_ = true;
    thread_.join();
  }
  std::uint64_t others() const { return others_; }

 private:
  std::atomic<bool> ends_{false};
  std::atomic<std::uint64_t> others_{0};
  std::thread thread_;
};

// Sends until it is refused; how many were taken.
std::uint64_t Fill(const std::string& url, int& code) {
  const std::string body(kMessage, 'q');
  std::uint64_t taken = 0;
  while ((code = Host::Notify(url, body)) == lpc::kOk) ++taken;
  return taken;
}

void AwaitCounted(PluginProcess& plugin, std::uint64_t count) {
  if (!Await(60, [&] { return plugin.Do("counted").at(0) >= static_cast<double>(count); })) {
    throw std::runtime_error("what was taken does not arrive");
  }
}

}  // namespace

void Stalled(const PressureSettings& settings) {
  PluginProcess alpha("alpha");
  PluginProcess beta("beta");
  PluginProcess stalled("stalled");
  Host host("stalled", {"alpha", "beta", "stalled"});
  for (PluginProcess* const plugin : {&alpha, &beta, &stalled}) {
    plugin->Start(host.endpoint());
    host.AwaitInited(plugin->id());
  }
  const std::string url = stalled.Url("count");
  SmallCalls undisturbed(host, {alpha.Url("echo"), beta.Url("echo")});
  SmallCalls disturbed(host, {alpha.Url("echo"), beta.Url("echo")});
  const std::size_t calls = settings.quick ? 200 : 3000;
  undisturbed.Make(calls);  // to warm up, as one block of many

  // Before anything was ever queued: an allocator keeps the room of a queue that was full.
  const double resident_before = bench::ForgetPeak();
  std::uint64_t taken = 0;
  double most_taken = 0;
  std::uint64_t wrong_codes = 0;
  for (int block = 0; block < (settings.quick ? 2 : 21); ++block) {
    undisturbed.Make(calls);
    stalled.Halt();
    int code = lpc::kOk;
    const std::uint64_t now = Fill(url, code);
    if (code != lpc::kQueueFull) ++wrong_codes;
    taken += now;
    most_taken = std::max(most_taken, static_cast<double>(now * kMessage) / kMiB);
    {
      const Knocking knocking(url);
      disturbed.Make(calls);
      wrong_codes += knocking.others();
    }
    stalled.GoOn();
    AwaitCounted(stalled, taken);
  }
  PrintFigure("pressure.stalled.undisturbed_p99", undisturbed.P99(), "us");
  PrintFigure("pressure.stalled.disturbed_p99", disturbed.P99(), "us");
  const double ratio = disturbed.P99() / undisturbed.P99();
  if (settings.quick) {
    PrintFigure("pressure.stalled.p99_ratio", ratio, "ratio");
  } else {
    PrintFigure("pressure.stalled.p99_ratio", ratio, "ratio", Bound::kAtMost, 1.5);
  }
  PrintFigure("pressure.stalled.p50_ratio", disturbed.P50() / undisturbed.P50(), "ratio");
  PrintFigure("pressure.stalled.taken_until_full", most_taken, "MiB", Bound::kAtMost, kMostTaken);

  const std::uint64_t cut_before = lpcserver::GetStatistics().cut_off;
  stalled.Halt();
  const auto begin = bench::Clock::now();
  int code = lpc::kOk;
  Fill(url, code);
  if (code != lpc::kQueueFull) ++wrong_codes;
  PrintFigure("pressure.stalled.resident_growth", (PeakOf(::getpid()) - resident_before) / 1024, "MiB",
              Bound::kAtMost, kMostGrowth);
  SmallCalls until_the_cut(host, {alpha.Url("echo"), beta.Url("echo")});
  const auto is_cut = [&] { return host.Events(TolmLPCFrame::kLpcMsgPluginDisconnected, "stalled") > 0; };
  until_the_cut.MakeWhile([&] { return !is_cut() && bench::SecondsSince(begin) < kCutWithin; });
  const bool cut = is_cut();
  const double cut_after = bench::SecondsSince(begin);
  PrintFigure("pressure.stalled.cut_after", cut_after, "s", Bound::kAtMost,
              cut ? (settings.quick ? 20 : 11) : 0);
  PrintFigure("pressure.stalled.cut_not_before", cut_after, "s", Bound::kAtLeast, 9.9);
  PrintFigure("pressure.stalled.events_of_the_cut",
              static_cast<double>(host.Events(TolmLPCFrame::kLpcMsgPluginDisconnected, "stalled")), "events",
              Bound::kExactly, 1);
  PrintFigure("pressure.stalled.counted_as_cut_off",
              static_cast<double>(lpcserver::GetStatistics().cut_off - cut_before), "peers", Bound::kExactly,
              1);
  stalled.GoOn();
  host.AwaitInited("stalled", 2);
  PrintFigure("pressure.stalled.calls_failed", static_cast<double>(undisturbed.failed() + disturbed.failed()),
              "calls", Bound::kExactly, 0);
  PrintFigure("pressure.stalled.calls_failed_until_the_cut", static_cast<double>(until_the_cut.failed()),
              "calls", Bound::kExactly, 0);
  PrintFigure("pressure.stalled.longest_call_until_the_cut", until_the_cut.Max() / 1000, "ms");
  PrintFigure("pressure.stalled.other_codes_than_queue_full", static_cast<double>(wrong_codes), "sends",
              Bound::kExactly, 0);
}

}  // namespace trust
