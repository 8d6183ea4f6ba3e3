// One plugin sends as fast as it can, and then the host does, while another plugin is called and calls.

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "pressure/Calls.h"
#include "pressure/Cases.h"
#include "support/Figures.h"
#include "traffic/PluginProcess.h"
#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr int kLongSeconds = 300;
constexpr std::size_t kBody = 100;
// What counts as received and still worked on is 64 MiB at most, and small messages cost somewhat more than
// they count for; the rest is what a process has anyway.
constexpr double kMostMiB = TRUST_SANITIZED ? 1024 : 192;  // a sanitizer keeps what was freed

// Some ten times what the others' longest takes on a machine with nothing else to do.
constexpr double kLongestMs = 500;

std::string Name(const std::string& way, const char* what) {
  return "pressure.flood." + way + '.' + what;
}

void PrintLongest(const std::string& way, const char* what, double milliseconds, bool quick) {
  if (quick) {
    PrintFigure(Name(way, what), milliseconds, "ms");
  } else {
    PrintFigure(Name(way, what), milliseconds, "ms", Bound::kAtMost, kLongestMs);
  }
}

void PrintOthers(const std::string& way, const SmallCalls& others, bool quick) {
  PrintFigure(Name(way, "other_calls_failed"), static_cast<double>(others.failed()), "calls", Bound::kExactly,
              0);
  PrintFigure(Name(way, "other_calls_p99"), others.P99(), "us");
  PrintLongest(way, "other_calls_longest", others.Max() / 1000, quick);
}

void ToHost(std::uint64_t count, const Host& host, PluginProcess& flood, PluginProcess& other, bool quick) {
  bench::ForgetPeak();
  SmallCalls calls(host, {other.Url("echo")});
  const auto begin = bench::Clock::now();
  flood.Begin("flood " + std::to_string(count) + ' ' + std::to_string(kBody) + ' ' + kHostCount);
  // The other plugin calls the host meanwhile: its requests wait in the same pool as the flood.
  other.Begin(std::string("call ") + kHostEcho + " 100 20 20000");
  calls.MakeWhile([&] { return host.notified() < count && bench::SecondsSince(begin) < kLongSeconds; });
  const auto sent = flood.Finish(kLongSeconds);
  const auto asked = other.Finish(kLongSeconds);
  Await(kLongSeconds, [&] { return host.notified() >= static_cast<std::uint64_t>(sent.at(0)); });
  const double seconds = bench::SecondsSince(begin);
  PrintFigure(Name("to_host", "taken"), sent.at(0), "messages", Bound::kExactly, static_cast<double>(count));
  PrintFigure(Name("to_host", "refused_queue_full"), sent.at(1), "messages");
  PrintFigure(Name("to_host", "refused_otherwise"), sent.at(2), "messages", Bound::kExactly, 0);
  PrintFigure(Name("to_host", "lost"), sent.at(0) - static_cast<double>(host.notified()), "messages",
              Bound::kExactly, 0);
  PrintFigure(Name("to_host", "rate"), sent.at(0) / seconds, "per_s");
  PrintFigure(Name("to_host", "peak_resident"), PeakOf(::getpid()) / 1024, "MiB", Bound::kAtMost, kMostMiB);
  PrintFigure(Name("to_host", "peak_resident_plugin"), PeakOf(flood.process()) / 1024, "MiB", Bound::kAtMost,
              kMostMiB);
  PrintOthers("to_host", calls, quick);
  PrintFigure(Name("to_host", "other_requests_failed"), asked.at(1), "calls", Bound::kExactly, 0);
  PrintLongest("to_host", "other_requests_longest", asked.at(4) / 1000, quick);
}

void ToPlugin(std::uint64_t count, const Host& host, PluginProcess& flood, PluginProcess& other, bool quick) {
  ::malloc_trim(0);  // what the flood before this one has freed
  bench::ForgetPeak();
  SmallCalls calls(host, {other.Url("echo")});
  const std::string url = flood.Url("count");
  std::atomic<bool> done{false};
  std::uint64_t full = 0;
  std::uint64_t otherwise = 0;
  const auto begin = bench::Clock::now();
  std::thread sender([&] {
    const std::string body(kBody, 'f');
    for (std::uint64_t taken = 0; taken < count && otherwise < 1000;) {
      const int code = Host::Notify(url, body);
      if (code == lpc::kOk) {
        ++taken;
        continue;
      }
      ++(code == lpc::kQueueFull ? full : otherwise);
      Spend(std::chrono::microseconds(200));
    }
    done = true;
  });
  calls.MakeWhile([&] { return !done; });
  sender.join();
  double counted = 0;
  Await(kLongSeconds, [&] { return (counted = flood.Do("counted").at(0)) >= static_cast<double>(count); });
  const double seconds = bench::SecondsSince(begin);
  PrintFigure(Name("to_plugin", "refused_queue_full"), static_cast<double>(full), "messages");
  PrintFigure(Name("to_plugin", "refused_otherwise"), static_cast<double>(otherwise), "messages",
              Bound::kExactly, 0);
  PrintFigure(Name("to_plugin", "lost"), static_cast<double>(count) - counted, "messages", Bound::kExactly,
              0);
  PrintFigure(Name("to_plugin", "rate"), static_cast<double>(count) / seconds, "per_s");
  PrintFigure(Name("to_plugin", "peak_resident"), PeakOf(::getpid()) / 1024, "MiB", Bound::kAtMost, kMostMiB);
  PrintFigure(Name("to_plugin", "peak_resident_plugin"), PeakOf(flood.process()) / 1024, "MiB",
              Bound::kAtMost, kMostMiB);
  PrintOthers("to_plugin", calls, quick);
}

}  // namespace

void Flood(const PressureSettings& settings) {
  const std::uint64_t count = settings.quick ? 20'000 : 1'000'000;
  PluginProcess flood("flood");
  PluginProcess other("other");
  Host host("flood", {"flood", "other"});
  for (PluginProcess* const plugin : {&flood, &other}) {
    plugin->Start(host.endpoint());
    host.AwaitInited(plugin->id());
  }
  ToHost(count, host, flood, other, settings.quick);
  ToPlugin(count, host, flood, other, settings.quick);
}

}  // namespace trust
