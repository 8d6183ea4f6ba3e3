// Bodies near the limit of one message beside calls of 1 KiB. A body of 256 MiB is beyond that limit: it is
// refused before anything of it is sent.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "pressure/Calls.h"
#include "pressure/Cases.h"
#include "support/Figures.h"
#include "traffic/PluginProcess.h"
#include "traffic/ProcessState.h"

namespace trust {
namespace {

constexpr std::size_t kMiB = 1u << 20;
constexpr int kTimeOutMs = 60'000;
// Some ten times what is seen on a machine with nothing else to do. A call to the plugin that takes the large
// body waits for the rest of that.
constexpr double kMostP99Ms = 10;
constexpr double kLongestMs = 500;
constexpr double kLongestBehindMs = 4000;

// Sends large bodies to a plugin, one after another, while it lives.
class LargeCalls {
 public:
  LargeCalls(const Host& host, const std::string& url, const std::string& body)
      : thread_([this, &host, url, &body] {
          while (!ends_) {
            const Outcome outcome = host.Call(url, body, kTimeOutMs);
            const bool whole = outcome.answered && outcome.body == std::to_string(body.size());
            ++(whole ? made_ : failed_);
          }
        }) {}
  ~LargeCalls() { End(); }

  void End() {
    ends_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::uint64_t made() const { return made_; }
  std::uint64_t failed() const { return failed_; }

 private:
  std::atomic<bool> ends_{false};
  std::atomic<std::uint64_t> made_{0};
  std::atomic<std::uint64_t> failed_{0};
  std::thread thread_;
};

void PrintBeside(const std::string& what, const SmallCalls& undisturbed, const SmallCalls& beside,
                 double longest_ms, bool quick) {
  const std::string name = "pressure.large_body." + what;
  PrintFigure(name + ".p50", beside.P50(), "us");
  PrintFigure(name + ".p50_ratio", beside.P50() / undisturbed.P50(), "ratio");
  // Two more processes copy as fast as they can, on as many cores as there are: what is bound is what a user
  // sees.
  if (quick) {
    PrintFigure(name + ".p99", beside.P99() / 1000, "ms");
    PrintFigure(name + ".longest", beside.Max() / 1000, "ms");
  } else {
    PrintFigure(name + ".p99", beside.P99() / 1000, "ms", Bound::kAtMost, kMostP99Ms);
    PrintFigure(name + ".longest", beside.Max() / 1000, "ms", Bound::kAtMost, longest_ms);
  }
  PrintFigure(name + ".refused_queue_full", static_cast<double>(beside.refused()), "calls");
  PrintFigure(name + ".failed", static_cast<double>(beside.failed()), "calls", Bound::kExactly, 0);
}

// Beyond the limit, both ways.
void TooLarge(const Host& host, PluginProcess& plugin) {
  std::string body(256 * kMiB, 'b');
  const Outcome sent = host.Call(plugin.Url("size"), body, kTimeOutMs);
  PrintFigure("pressure.large_body.code_for_256_mib", sent.answered ? 0 : sent.code, "code", Bound::kExactly,
              lpc::kMessageTooLarge);
  PrintFigure("pressure.large_body.refused_within", sent.microseconds / 1000, "ms");
  body = std::string();
  const auto asked = plugin.Do("call " + std::string(kHostSize) + " 268435456 1 60000", 120);
  PrintFigure("pressure.large_body.code_for_256_mib_to_host", asked.at(1) > 0 ? asked.at(2) : 0, "code",
              Bound::kExactly, lpc::kMessageTooLarge);
  // The answer is what is too large: its requester is told at once, and does not wait for its time-out.
  const Outcome made = host.Call(plugin.Url("make"), std::to_string(256 * kMiB), kTimeOutMs);
  PrintFigure("pressure.large_body.code_for_256_mib_answer", made.answered ? 0 : made.code, "code",
              Bound::kExactly, lpc::kRefused);
  const auto carried = plugin.Do("call " + std::string(kHostSize) + " 133169152 1 60000", 120);
  PrintFigure("pressure.large_body.carried_127_mib_to_host", carried.at(0), "calls", Bound::kExactly, 1);
}

}  // namespace

void LargeBody(const PressureSettings& settings) {
  PluginProcess alpha("alpha");
  PluginProcess first("first");
  PluginProcess second("second");
  Host host("large", {"alpha", "first", "second"});
  for (PluginProcess* const plugin : {&alpha, &first, &second}) {
    plugin->Start(host.endpoint());
    host.AwaitInited(plugin->id());
  }
  TooLarge(host, first);

  const std::size_t calls = settings.quick ? 50 : 400;
  const std::string body(127 * kMiB, 'l');
  SmallCalls undisturbed(host, {alpha.Url("echo")});
  SmallCalls undisturbed_first(host, {first.Url("echo")});
  SmallCalls beside(host, {alpha.Url("echo")});
  SmallCalls behind(host, {first.Url("echo")});
  SmallCalls beside_two(host, {alpha.Url("echo")});
  std::uint64_t made = 0;
  std::uint64_t failed = 0;
  const auto add = [&](LargeCalls& large) {
    large.End();
    made += large.made();
    failed += large.failed();
  };
  for (int block = 0; block < (settings.quick ? 1 : 11); ++block) {
    undisturbed.Make(calls);
    undisturbed_first.Make(calls);
    // Each block lasts for as long as two large bodies take.
    LargeCalls one(host, first.Url("size"), body);
    beside.MakeWhile([&] { return one.made() + one.failed() < 2; });
    behind.MakeWhile([&] { return one.made() + one.failed() < 4; });
    LargeCalls two(host, second.Url("size"), body);
    beside_two.MakeWhile([&] { return two.made() + two.failed() < 2; });
    add(two);
    add(one);
  }
  PrintFigure("pressure.large_body.undisturbed.p50", undisturbed.P50(), "us");
  PrintFigure("pressure.large_body.undisturbed.p99", undisturbed.P99() / 1000, "ms");
  PrintBeside("beside_one", undisturbed, beside, kLongestMs, settings.quick);
  PrintBeside("same_plugin", undisturbed_first, behind, kLongestBehindMs, settings.quick);
  PrintBeside("beside_two", undisturbed, beside_two, kLongestMs, settings.quick);
  PrintFigure("pressure.large_body.large_made", static_cast<double>(made), "calls", Bound::kAtLeast, 1);
  PrintFigure("pressure.large_body.large_failed", static_cast<double>(failed), "calls", Bound::kExactly, 0);
  PrintFigure("pressure.large_body.peak_resident", PeakOf(::getpid()) / 1024, "MiB");
}

}  // namespace trust
