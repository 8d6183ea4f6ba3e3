// trust_soak: every kind of traffic at a time, for a long time, while memory, descriptors and threads of the
// host and of a plugin are looked at each second. See --help.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

#include "Channel.h"
#include "Process.h"
#include "Samples.h"
#include "Stage.h"
#include "posix/Loopback.h"
#include "soak/Slope.h"
#include "soak/Traffic.h"
#include "support/Figures.h"
#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace {

using namespace trust;

// What a settled heap moves by; over hours, what nobody would call a leak.
constexpr double kSettledKiB = 1536;
constexpr double kKiBPerHour = 1024;
// What the allocator may come to keep of bodies of 8 MiB that were freed: now and then two meet in one of its
// heaps, of which there are many. What grows for another reason shows in what is allocated.
constexpr double kKeptKiB = 64 * 1024;
// Shorter runs are over before pools and heaps have settled: what grows is only shown.
constexpr double kLeastSeconds = 600;

struct Watched {
  std::string name;
  int process = 0;
  Series resident{};
  Series descriptors{};
  Series threads{};
  Series allocated{};

  void Look(double seconds, double allocated_kib) {
    const ProcessState state = StateOf(process);
    resident.Add(seconds, state.resident_kib);
    descriptors.Add(seconds, state.descriptors);
    threads.Add(seconds, state.threads);
    // A leak that is served from what the allocator keeps is not seen in what is resident.
    allocated.Add(seconds, allocated_kib);
  }
};

// "Flat": over the last two thirds of the run the line grows by no more than `allowed`.
void PrintSlope(const std::string& name, const Series& series, const char* unit, double seconds,
                double allowed, double allowed_per_hour) {
  const double hours = seconds * 2 / 3 / 3600;
  const double bound = std::max(allowed / hours, allowed_per_hour);
  if (seconds >= kLeastSeconds) {
    PrintFigure(name + "_per_hour", series.PerHour(), unit, Bound::kAtMost, std::round(bound));
  } else {
    PrintFigure(name + "_per_hour", series.PerHour(), unit);
  }
  PrintFigure(name + "_last", series.Last(), unit);
}

void Print(const Watched& watched, double seconds) {
  const std::string name = "soak." + watched.name + '.';
  PrintSlope(name + "resident", watched.resident, "KiB", seconds, kKeptKiB, kKiBPerHour);
  PrintSlope(name + "descriptors", watched.descriptors, "count", seconds, 2, 0);
  PrintSlope(name + "threads", watched.threads, "count", seconds, 3, 0);
  PrintSlope(name + "allocated", watched.allocated, "KiB", seconds, kSettledKiB, kKiBPerHour);
}

// What was sent and what has arrived, when all is quiet.
template <typename Arrived>
void Compare(Tally& tally, const char* kind, std::uint64_t sent, Arrived arrived) {
  Await(30, [&] { return arrived() >= sent; });
  const std::uint64_t came = arrived();
  tally.Expect(kind, came == sent, std::to_string(came) + " of " + std::to_string(sent) + " arrived");
}

// In the folder of `configuration`, which it writes.
int RunHere(double seconds, std::uint16_t port) {
  PluginProcess alpha("alpha");
  PluginProcess beta("beta");
  Tally tally;
  Sent sent;
  Host host("soak", {"alpha", "beta", "gamma", "delta"});
  for (PluginProcess* const plugin : {&alpha, &beta}) {
    plugin->Start(host.endpoint());
    host.AwaitInited(plugin->id());
  }
  WarmUp(host, sent);
  Watched watched_host{"host", ::getpid()};
  Watched watched_plugin{"plugin", alpha.process()};
  {
    Repeating repeating;
    AddHostTraffic(repeating, host, sent, tally);
    AddPluginTraffic(repeating, alpha, "beta", sent, tally);
    AddPluginTraffic(repeating, beta, "alpha", sent, tally);
    AddChurn(repeating, host, tally);
    AddGuardTraffic(repeating, port, tally);
    const auto begin = bench::Clock::now();
    while (bench::SecondsSince(begin) < seconds) {
      watched_host.Look(bench::SecondsSince(begin), AllocatedKiB());
      watched_plugin.Look(bench::SecondsSince(begin), alpha.AllocatedKiB());
      Spend(std::chrono::seconds(1));
    }
  }
  Compare(tally, "answers_to_async_requests", sent.requests, [&] { return host.answered_later(); });
  Compare(tally, "notifications_to_host", sent.to_host, [&] { return host.notified(); });
  Compare(tally, "pushes_to_host", sent.pushes, [&] { return host.pushed(); });
  Compare(tally, "notifications_to_plugin", sent.notifications,
          [&] { return static_cast<std::uint64_t>(beta.Do("counted").at(0)); });
  for (const char* const id : {"alpha", "beta"}) {
    tally.Expect("stayed_connected", host.Events(TolmLPCFrame::kLpcMsgPluginDisconnected, id) == 0,
                 std::string(id) + " was disconnected");
  }
  PrintFigure("soak.seconds", seconds, "s");
  tally.Print(seconds);
  Print(watched_host, seconds);
  Print(watched_plugin, seconds);
  PrintFigure("soak.stop_result", host.Stop(), "result", Bound::kExactly, 0);
  return AllKept() ? 0 : 1;
}

// A host of its own folder has a guard's endpoint.
int RunInAFolder(double seconds) {
  const bench::RuntimeFolder folder;
  const bench::Stage stage;
  const std::uint16_t port = bench::FreePort();
  stage.WritePort("ServerPort", port);
  bench::Child run(stage.Host(),
                   {"--role", "run", "--seconds", std::to_string(seconds), std::to_string(port)});
  run.AwaitWord(static_cast<int>(seconds) + 300);
  return run.channel().TakeText() == "0" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  double seconds = 900;
  std::string name;
  std::string role;
  CLI::App options("What the frame keeps over a long time");
  options.add_option("--seconds", seconds, "how long; 900");
  options.add_option("name", name)->group("");
  options.add_option("--role", role)->group("");
  CLI11_PARSE(options, argc, argv);
  if (role == "plugin") return RunPluginRole(name);
  if (role == "run") {
    bench::Channel channel(bench::ParentDescriptor());
    const int result = RunHere(seconds, static_cast<std::uint16_t>(std::stoi(name)));
    channel.Say(std::to_string(result));
    return result;
  }
  bench::EndInOrderOnSignals();
  return RunInAFolder(seconds);
} catch (const std::exception& error) {
  std::fprintf(stderr, "trust_soak: %s\n", error.what());
  return 2;
}
