// A host that may have 64 descriptors, and 200 who want to be connected: over the plugins' endpoint, and over
// the guard's. Nobody is to be served worse than not at all: no processor's time and no log is used up, and
// it is over when there is room again.

#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "Samples.h"
#include "Stage.h"
#include "posix/GuardClient.h"
#include "posix/Loopback.h"
#include "pressure/Cases.h"
#include "pressure/Crowd.h"
#include "support/Figures.h"
#include "traffic/PluginProcess.h"
#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr int kFew = 64;
constexpr int kEnough = 4096;
constexpr char kEndpoint[] = "few";
// What is logged of one who is let in: its connection, and how the frame takes note of it.
constexpr int kLinesOfPlugin = 4;
constexpr int kLinesOfGuard = 3;

std::string Program(const char* name) {
  for (const char* const folder : {"/usr/bin/", "/bin/"}) {
    if (std::filesystem::exists(std::string(folder) + name)) return std::string(folder) + name;
  }
  throw std::runtime_error(std::string("there is no ") + name);
}

// A host in a folder of its own, which begins with the few descriptors.
class FewHost {
 public:
  FewHost() {
    port_ = bench::FreePort();
    stage_.WritePort("ServerPort", port_);
    rlimit own{};
    ::getrlimit(RLIMIT_NOFILE, &own);
    const std::string limits = std::to_string(kFew) + ':' + std::to_string(own.rlim_max);
    host_ = std::make_unique<Crowd>(
        Program("prlimit"),
        std::vector<std::string>{"--nofile=" + limits, stage_.Host(), "--role", "few-host", kEndpoint});
    process_ = static_cast<int>(host_->Do("process").at(0));
  }

  std::uint16_t port() const { return port_; }
  ProcessState state() const { return StateOf(process_); }
  Crowd& crowd() { return *host_; }
  /// From here on it may have enough of them.
  void Raise() const {
    rlimit limit{};
    ::prlimit(process_, RLIMIT_NOFILE, nullptr, &limit);
    limit.rlim_cur = std::min<rlim_t>(kEnough, limit.rlim_max);
    if (::prlimit(process_, RLIMIT_NOFILE, &limit, nullptr) != 0) throw std::runtime_error("the limit stays");
  }
  /// Whether it has used them all up, within a minute.
  void AwaitShortage() const {
    // One or two stand free now and then: who gave up in its handshake has just gone.
    if (!Await(60, [this] { return state().descriptors >= kFew - 2; })) {
      throw std::runtime_error("the descriptors are not used up");
    }
  }

 private:
  const bench::Stage stage_;
  std::uint16_t port_ = 0;
  std::unique_ptr<Crowd> host_;
  int process_ = 0;
};

// How long it takes until `count` of the crowd are connected; a minute at most.
double SecondsUntil(Crowd& crowd, double count) {
  const auto begin = bench::Clock::now();
  Await(60, [&] { return crowd.Do("connected").at(0) >= count; });
  return bench::SecondsSince(begin);
}

// Has the crowd connect, which uses up the descriptors; the lines of the rush count as well. `lines_of_one`
// are logged of each who is let in, which is no part of the shortage.
void PrintShortage(const std::string& name, FewHost& host, Crowd& crowd, const std::string& connect,
                   int lines_of_one, const PressureSettings& settings) {
  host.crowd().Do("lines");
  crowd.Do(connect);
  host.AwaitShortage();
  // The handshakes of those who were let in take their processor's time, and have their lines.
  Spend(std::chrono::seconds(1));
  const auto rush = host.crowd().Do("lines");
  const double before = host.state().processor_seconds;
  const int seconds = settings.quick ? 2 : 10;
  Spend(std::chrono::seconds(seconds));
  const double used = (host.state().processor_seconds - before) / seconds * 100;
  const auto lines = host.crowd().Do("lines");
  PrintFigure(name + ".processor_time", used, "percent", Bound::kAtMost, settings.quick ? 100 : 20);
  const double let_in = crowd.Do("connected").at(0);
  PrintFigure(name + ".let_in", let_in, "connections", Bound::kAtLeast, 1);
  PrintFigure(name + ".log_lines", lines.at(0), "lines", Bound::kAtMost, 49);
  PrintFigure(name + ".log_lines_of_the_rush", rush.at(0), "lines");
  PrintFigure(name + ".log_lines_of_the_shortage", rush.at(0) + lines.at(0) - let_in * lines_of_one, "lines",
              Bound::kAtMost, 49);
  PrintFigure(name + ".log_lines_errors", rush.at(1) + lines.at(1), "lines", Bound::kAtMost, 9);
  // It may be over for a moment, when those who connect are slow.
  PrintFigure(name + ".shortage_logged", rush.at(2) + lines.at(2), "lines",
              settings.quick ? Bound::kAtLeast : Bound::kExactly, 1);
}

void PrintAfter(const std::string& name, double seconds, const PressureSettings& settings) {
  PrintFigure(name, seconds, "s", Bound::kAtMost, settings.quick ? 20 : 1);
}

}  // namespace

void FewDescriptors(const PressureSettings& settings) {
  const int count = settings.quick ? 100 : 200;
  const std::string many = std::to_string(count);
  {
    FewHost host;
    PluginProcess fresh("fresh");
    {
      Crowd clients("few-clients");
      PrintShortage("pressure.nofile.plugins", host, clients, "connect " + many + ' ' + kEndpoint,
                    kLinesOfPlugin, settings);
    }
    const auto begin = bench::Clock::now();
    fresh.Start(kEndpoint);
    Await(60, [&] { return host.crowd().Do("call /fresh/echo").at(0) == 1; });
    PrintAfter("pressure.nofile.plugins.served_when_they_are_gone", bench::SecondsSince(begin), settings);

    Crowd clients("few-clients");
    clients.Do("connect " + many + ' ' + kEndpoint);
    host.AwaitShortage();
    host.Raise();
    PrintAfter("pressure.nofile.plugins.all_connected_when_raised", SecondsUntil(clients, count), settings);
  }
  FewHost host;
  {
    Crowd guards("few-guards");
    PrintShortage("pressure.nofile.guards", host, guards,
                  "connect " + many + ' ' + std::to_string(host.port()), kLinesOfGuard, settings);
    // Whoever leaves makes room for one, and the next one finds none again.
    guards.Do("turns");
    host.crowd().Do("lines");
    Spend(std::chrono::seconds(settings.quick ? 2 : 5));
    PrintFigure("pressure.nofile.guards.log_errors_while_they_take_turns", host.crowd().Do("lines").at(1),
                "lines", Bound::kAtMost, 9);
  }
  const auto begin = bench::Clock::now();
  bench::GuardClient guard(host.port());
  const std::string question = R"({"guid":"one","requestData":{"method":"GetMianProcessPath"}})";
  guard.Ask(bench::GuardClient::FrameOf(question));
  PrintAfter("pressure.nofile.guards.served_when_they_are_gone", bench::SecondsSince(begin), settings);

  // The endpoint's tables were made for the few: a higher limit does not let more guards in, and does no
  // harm.
  Crowd guards("few-guards");
  guards.Do("connect " + many + ' ' + std::to_string(host.port()));
  host.AwaitShortage();
  host.Raise();
  host.crowd().Do("lines");
  Spend(std::chrono::seconds(settings.quick ? 1 : 5));
  PrintFigure("pressure.nofile.guards.log_errors_when_raised", host.crowd().Do("lines").at(1), "lines",
              Bound::kAtMost, 9);
}

}  // namespace trust
