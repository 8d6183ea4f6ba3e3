#include "Kills.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Stage.h"
#include "Tally.h"
#include "support/Figures.h"
#include "support/System.h"
#include "support/Wait.h"

namespace trust::death {
namespace {

using Clock = std::chrono::steady_clock;
using tolm::test::WaitFor;

constexpr int kHostThreads = 3;
constexpr int kPluginThreads = 2;
constexpr int kKillsBetweenLooks = 20;
constexpr int kKillsBetweenStops = 100;
constexpr int kKillsBetweenDeadlyStops = 25;
constexpr int kMostNaps = 120;
constexpr int kMostNapsOfAStop = 1500;
constexpr int kNapsOfCalm = 250;
constexpr std::size_t kMostShown = 3;
constexpr int kMostFailed = 5;

class Killing {
 public:
  explicit Killing(const KillOptions& options) : options_(options), random_(options.seed) {
    stage_.AddPlugins({"a", "b", "c", "d", "e"}, kPluginThreads);
  }

  void Run() {
    const auto began = Clock::now();
    StartHost();
    Look();
    int looked = 0;
    int stopped = 0;
    int stopped_under_fire = 0;
    while (kills_ < options_.kills && failed_ < kMostFailed) {
      Nap(random_() % kMostNaps);
      KillSomething();
      if (kills_ - stopped >= kKillsBetweenStops) {
        Look();
        Stop();
        StartHost();
        looked = stopped = kills_;
        std::printf("%d kills\n", kills_);
      } else if (kills_ - stopped_under_fire >= kKillsBetweenDeadlyStops) {
        KillWhileItStops();
        StartHost();
        stopped_under_fire = kills_;
      } else if (kills_ - looked >= kKillsBetweenLooks) {
        Look();
        looked = kills_;
      }
    }
    Look();
    Stop();
    seconds_ = std::chrono::duration<double>(Clock::now() - began).count();
  }

  void PrintFigures();

 private:
  void Nap(unsigned long milliseconds) {
    for (unsigned long i = 0; i < milliseconds; ++i) tolm::test::Nap();
  }
  void StartHost() {
    stage_.tally().quiet = false;
    stage_.StartHost(false).Type("load " + std::to_string(kHostThreads));
  }
  void Kill(const std::filesystem::path& program, int& count) {
    const tolm::test::ProcessId victim = stage_.AnyProcessOf(program);
    Disturb(stage_.tally());
    if (victim < 0) {
      std::printf("%s does not come back\n", program.c_str());
      ++failed_;
      return;
    }
    if (program == stage_.Agent()) {
      Stage::KillAndWait(victim);
    } else {
      tolm::test::KillProcess(victim);
    }
    ++count;
    ++kills_;
  }
  void KillHost() {
    stage_.KillHost();
    ++hosts_;
    ++kills_;
    Nap(random_() % kMostNaps);
    StartHost();
  }
  void KillSomething();
  void KillWhileItStops();
  void Look();
  void Stop();
  bool AllServe();
  void Fail(const char* what) {
    std::printf("kill %d: %s\n", kills_, what);
    if (++shown_ <= kMostShown) stage_.ShowLogs();
  }

  const KillOptions options_;
  std::minstd_rand random_;
  Stage stage_;
  int kills_ = 0;
  int plugins_ = 0;
  int guards_ = 0;
  int agents_ = 0;
  int hosts_ = 0;
  int in_stops_ = 0;
  int failed_ = 0;
  std::size_t orphans_ = 0;
  std::size_t files_ = 0;
  std::size_t shown_ = 0;
  double slowest_ = 0;
  double seconds_ = 0;
};

void Killing::KillSomething() {
  ReviewCallers(stage_.tally());
  const auto dice = random_() % 100;
  if (dice < 70) {
    Kill(stage_.Plugin(stage_.plugins()[random_() % stage_.plugins().size()]), plugins_);
  } else if (dice < 82) {
    Kill(stage_.guard(), guards_);
  } else if (dice < 92) {
    KillHost();
  } else {
    // Nobody but a frame that starts makes an agent.
    Kill(stage_.Agent(), agents_);
    Nap(random_() % kMostNaps);
    if (random_() % 4 != 0) {
      KillHost();
    } else {
      Stop();
      StartHost();
    }
  }
}

// A stop takes its time, and any of the processes may die in it. What the dead leave is for the next start.
void Killing::KillWhileItStops() {
  stage_.tally().quiet = true;
  stage_.host().Type("stop");
  Nap(random_() % kMostNapsOfAStop);
  const auto processes = stage_.Processes();
  if (!processes.empty()) {
    const auto victim = std::next(processes.begin(), static_cast<long>(random_() % processes.size()));
    if (victim->second == stage_.Agent()) {
      Stage::KillAndWait(victim->first);
    } else {
      tolm::test::KillProcess(victim->first);
    }
    const bool is_plugin = victim->second.filename() == "death_plugin";
    ++(is_plugin                          ? plugins_
       : victim->second == stage_.Host()  ? hosts_
       : victim->second == stage_.Agent() ? agents_
                                          : guards_);
    ++kills_;
    ++in_stops_;
  }
  if (stage_.host().WaitExit(kPatience)) return;
  ++failed_;
  Fail("the host does not end when something dies while it stops");
}

// Whether every plugin answers the host, and is answered by another one and by the host, from now on.
bool Killing::AllServe() {
  Tally& tally = stage_.tally();
  std::vector<const Count*> counts;
  for (std::size_t i = 0; i < stage_.plugins().size(); ++i) {
    counts.insert(counts.end(), {&tally.served[i], &tally.forwarded[i], &tally.upward[i]});
  }
  std::vector<std::uint64_t> before;
  for (const Count* const count : counts) before.push_back(*count);
  return WaitFor(
      [&] {
        for (std::size_t i = 0; i < counts.size(); ++i) {
          if (*counts[i] <= before[i]) return false;
        }
        return true;
      },
      kPatience);
}

void Killing::Look() {
  Tally& tally = stage_.tally();
  const auto began = Clock::now();
  if (!AllServe()) {
    ++failed_;
    Fail("not all plugins serve again");
  }
  slowest_ = std::max(slowest_, std::chrono::duration<double>(Clock::now() - began).count());
  const auto wrong = stage_.WrongProcesses();
  for (const std::string& one : wrong) std::printf("kill %d: %s\n", kills_, one.c_str());
  orphans_ += wrong.size();
  const auto balanced = [&] {
    for (std::size_t i = 0; i < stage_.plugins().size(); ++i) {
      if (tally.connections[i] != 1) return false;
    }
    return true;
  };
  if (!WaitFor(balanced)) {
    ++tally.events_out_of_order;
    Fail("the host was not told of each connection and each end once");
  }
  ReviewCallers(tally);
  // What was begun before may still fail; what begins now is answered.
  ++tally.calm;
  Nap(kNapsOfCalm);
  ++tally.calm;
}

void Killing::Stop() {
  stage_.tally().quiet = true;
  if (!stage_.StopHost()) {
    ++failed_;
    Fail("the host does not stop in order");
    stage_.KillHost();
  }
  orphans_ += stage_.ProcessesThatStay();
  files_ += stage_.FilesThatStay();
  if (ReviewCallers(stage_.tally()) != 0) Fail("a call is under way without a process");
}

void Killing::PrintFigures() {
  const Tally& tally = stage_.tally();
  const auto figure = [](const std::string& name, auto value) {
    PrintFigure("death." + name, static_cast<double>(value), "count");
  };
  const auto none = [](const std::string& name, auto value) {
    PrintFigure("death." + name, static_cast<double>(value), "count", Bound::kExactly, 0);
  };
  std::uint64_t calls = 0;
  for (const Count& count : tally.outcomes) calls += count;
  PrintFigure("death.kills", kills_, "count", Bound::kAtLeast, options_.kills);
  figure("kills.plugin", plugins_);
  figure("kills.guard", guards_);
  figure("kills.agent", agents_);
  figure("kills.host", hosts_);
  figure("kills.in_stop", in_stops_);
  figure("calls", calls);
  none("calls_late", tally.late.load());
  figure("answered", tally.outcomes[0].load());
  for (std::size_t i = 1; i < kOutcomes; ++i) {
    figure(std::string("code.") + NameOf(static_cast<Outcome>(i)), tally.outcomes[i].load());
  }
  none("unexplained", tally.unexplained.load());
  figure("caller_killed", tally.cut.load());
  figure("calm_calls", tally.calm_calls.load());
  none("calm_calls_failed", tally.calm_failed.load());
  figure("later.sent", tally.later_sent.load());
  figure("later.answered", tally.later_answered.load());
  figure("later.never_sent", tally.later_never_sent.load());
  figure("later.peer_gone", tally.later_peer_gone.load());
  none("later.lost", tally.later_lost.load());
  figure("notifications", tally.notices.load());
  figure("notifications_failed", tally.notices_failed.load());
  none("orphans", orphans_);
  none("left_files", files_);
  figure("events", tally.events.load());
  figure("events_swapped", tally.events_swapped.load());
  none("events_out_of_order", tally.events_out_of_order.load());
  none("restarts_failed", failed_);
  PrintFigure("death.slowest_return_s", slowest_, "s");
  PrintFigure("death.took_s", seconds_, "s");
}

}  // namespace

void RunKills(const KillOptions& options) {
  std::printf("seed %u\n", options.seed);
  Killing killing(options);
  killing.Run();
  killing.PrintFigures();
}

}  // namespace trust::death
