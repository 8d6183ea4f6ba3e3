#include "Kills.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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
constexpr int kKillsOfAnything = 15;
constexpr int kKillsOfPlugins = 20;
constexpr int kKillsBetweenStops = 100;
constexpr int kMostNaps = 120;
constexpr int kMostNapsOfAStop = 1500;
constexpr int kNapsOfCalm = 250;
constexpr int kNapsBetweenReviews = 10;
/// What is lost is found out by the host within kLost, and what is late by a review of the callers.
constexpr std::chrono::milliseconds kPatienceWithOldOnes = kLost + 5 * kMargin;
constexpr std::size_t kMostShown = 3;
constexpr int kMostFailed = 5;
/// Of all events, in percent.
constexpr double kMostSwapped = 1;

class Killing {
 public:
  explicit Killing(const KillOptions& options) : options_(options), random_(options.seed) {
    stage_.AddPlugins({"a", "b", "c", "d", "e"}, kPluginThreads);
  }

  void Run() {
    const auto began = Clock::now();
    StartHost();
    Look();
    int stopped = 0;
    while (GoesOn()) {
      KillAnything();
      Look();
      KillPlugins();
      Look();
      if (kills_ - stopped < kKillsBetweenStops || !GoesOn()) continue;
      Stop();
      StartHost();
      Look();
      stopped = kills_;
      std::printf("%d kills\n", kills_);
    }
    Stop();
    seconds_ = std::chrono::duration<double>(Clock::now() - began).count();
  }

  void PrintFigures() const;

 private:
  bool GoesOn() const { return kills_ < options_.kills && failed_ < kMostFailed; }
  void Nap(unsigned long milliseconds) {
    for (unsigned long i = 0; i < milliseconds; ++i) tolm::test::Nap();
  }
  void StartHost() {
    stage_.tally().quiet = false;
    stage_.StartHost(false).Type("load " + std::to_string(kHostThreads));
  }
  /// `disturbed`: whose calls its death explains.
  void Kill(const std::filesystem::path& program, int& count, std::size_t disturbed) {
    const tolm::test::ProcessId victim = stage_.AnyProcessOf(program);
    Disturb(stage_.tally(), disturbed);
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
  void KillPlugin(std::size_t plugin) { Kill(stage_.Plugin(stage_.plugins()[plugin]), plugins_, plugin); }
  void KillHost() {
    stage_.KillHost();
    TakeOverRequests();
    ++hosts_;
    ++kills_;
    Nap(random_() % kMostNaps);
    StartHost();
  }
  void KillSomething();
  void KillAnything();
  void KillPlugins();
  void KillWhileItStops();
  void Look();
  void Stop();
  bool AllServe();
  bool OldOnesEnd();
  void KeepCalm();
  std::int64_t UndecidedRequests() const;
  void TakeOverRequests();
  void CheckRequests();
  void PrintKills() const;
  void PrintCalls() const;
  void PrintRequests() const;
  void PrintEvents() const;
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
  std::uint64_t shown_unexplained_ = 0;
  std::uint64_t requests_miscounted_ = 0;
  std::int64_t requests_astray_ = 0;  // sent less counted, of hosts that had stopped in order
  double slowest_ = 0;
  double longest_end_ = 0;
  double seconds_ = 0;
};

void Killing::KillAnything() {
  for (int i = 0; i < kKillsOfAnything && GoesOn(); ++i) {
    Nap(random_() % kMostNaps);
    ReviewCallers(stage_.tally(), 0);
    KillSomething();
  }
}

// All plugins but one: its calls with the host have no excuse, and those of another one have none until it
// dies.
void Killing::KillPlugins() {
  const std::size_t count = stage_.plugins().size();
  const std::size_t spared = random_() % count;
  for (int i = 0; i < kKillsOfPlugins && GoesOn(); ++i) {
    Nap(random_() % kMostNaps);
    ReviewCallers(stage_.tally(), 0);
    KillPlugin((spared + 1 + random_() % (count - 1)) % count);
  }
}

void Killing::KillSomething() {
  const auto dice = random_() % 100;
  if (dice < 37) {
    KillPlugin(random_() % stage_.plugins().size());
  } else if (dice < 60) {
    Kill(stage_.guard(), guards_, kEverybody);
  } else if (dice < 78) {
    KillHost();
  } else if (dice < 87) {
    KillWhileItStops();
    StartHost();
  } else {
    // Nobody but a frame that starts makes an agent.
    Kill(stage_.Agent(), agents_, kEverybody);
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
  Disturb(stage_.tally(), kEverybody);
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
  const auto exit = stage_.host().WaitExit(kPatience);
  if (!exit) {
    ++failed_;
    Fail("the host does not end when something dies while it stops");
    stage_.KillHost();
  }
  if (exit && !exit->killed) {
    CheckRequests();
  } else {
    TakeOverRequests();
  }
}

// Of the requests that nobody waits for, without those that were miscounted earlier. Exact while no host
// runs.
std::int64_t Killing::UndecidedRequests() const {
  const Tally& tally = stage_.tally();
  const std::uint64_t decided = tally.later_answered + tally.later_peer_gone + tally.later_lost +
                                tally.later_host_stopped + tally.later_host_killed;
  return static_cast<std::int64_t>(tally.later_sent - decided) - requests_astray_;
}

// A host that was killed has left some behind.
void Killing::TakeOverRequests() {
  const std::int64_t undecided = UndecidedRequests();
  if (undecided < 0) CheckRequests();
  if (undecided > 0) stage_.tally().later_host_killed += static_cast<std::uint64_t>(undecided);
  stage_.tally().later_oldest_ns = 0;
}

// A host that has stopped in order has counted each of them once.
void Killing::CheckRequests() {
  const std::int64_t undecided = UndecidedRequests();
  if (undecided == 0) return;
  std::printf("kill %d: %lld requests are not counted once\n", kills_, static_cast<long long>(undecided));
  requests_miscounted_ += static_cast<std::uint64_t>(std::abs(undecided));
  requests_astray_ += undecided;
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
  if (!OldOnesEnd()) {
    ++failed_;
    Fail("calls or requests from before do not end");
  }
  ForgetDisturbances(tally);
  KeepCalm();
  const std::uint64_t unexplained = tally.unexplained + tally.later_lost;
  if (unexplained != shown_unexplained_)
    Fail("calls have ended unexplained since the last look, or requests are lost");
  shown_unexplained_ = unexplained;
}

// Whether each call that is under way ends, in time or not, and each request that nobody waits for is
// decided. They were begun while not all was well; whatever is begun from now on has no such excuse.
bool Killing::OldOnesEnd() {
  Tally& tally = stage_.tally();
  const std::int64_t now = NowNs();
  const bool ended = WaitFor(
      [&] {
        if (ReviewCallers(tally, now) == 0 && (tally.later_oldest_ns == 0 || tally.later_oldest_ns >= now))
          return true;
        Nap(kNapsBetweenReviews);
        return false;
      },
      kPatienceWithOldOnes);
  longest_end_ = std::max(longest_end_, static_cast<double>(NowNs() - now) / 1e9);
  return ended;
}

void Killing::KeepCalm() {
  Tally& tally = stage_.tally();
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
    TakeOverRequests();
  } else {
    CheckRequests();
  }
  orphans_ += stage_.ProcessesThatStay();
  files_ += stage_.FilesThatStay();
  if (ReviewCallers(stage_.tally(), NowNs()) != 0) {
    ++failed_;
    Fail("a call is under way without a process");
  }
}

void Publish(const char* name, double figure) {
  PrintFigure(std::string("death.") + name, figure, "count");
}

void PublishNone(const char* name, double figure) {
  PrintFigure(std::string("death.") + name, figure, "count", Bound::kExactly, 0);
}

double Value(const Count& count) {
  return static_cast<double>(count.load());
}

void Killing::PrintFigures() const {
  PrintKills();
  PrintCalls();
  PrintRequests();
  PublishNone("orphans", static_cast<double>(orphans_));
  PublishNone("left_files", static_cast<double>(files_));
  PrintEvents();
  PublishNone("restarts_failed", failed_);
  PrintFigure("death.slowest_return_s", slowest_, "s");
  PrintFigure("death.slowest_end_s", longest_end_, "s");
  PrintFigure("death.took_s", seconds_, "s");
}

void Killing::PrintKills() const {
  PrintFigure("death.kills", kills_, "count", Bound::kAtLeast, options_.kills);
  Publish("kills.plugin", plugins_);
  Publish("kills.guard", guards_);
  Publish("kills.agent", agents_);
  Publish("kills.host", hosts_);
  Publish("kills.in_stop", in_stops_);
}

void Killing::PrintCalls() const {
  const Tally& tally = stage_.tally();
  std::uint64_t calls = 0;
  for (const Count& count : tally.outcomes) calls += count;
  Publish("calls", static_cast<double>(calls));
  PublishNone("calls_late", Value(tally.late));
  Publish("answered", Value(tally.outcomes[0]));
  for (std::size_t i = 1; i < kOutcomes; ++i) {
    PrintFigure(std::string("death.code.") + NameOf(static_cast<Outcome>(i)), Value(tally.outcomes[i]),
                "count");
  }
  Publish("explained_by_all", Value(tally.explained_by_all));
  Publish("explained_by_plugin", Value(tally.explained_by_plugin));
  PublishNone("unexplained", Value(tally.unexplained));
  Publish("undisturbed_calls", Value(tally.undisturbed));
  Publish("caller_killed", Value(tally.cut));
  Publish("calm_calls", Value(tally.calm_calls));
  PublishNone("calm_calls_failed", Value(tally.calm_failed));
}

void Killing::PrintRequests() const {
  const Tally& tally = stage_.tally();
  Publish("later.sent", Value(tally.later_sent));
  Publish("later.answered", Value(tally.later_answered));
  Publish("later.never_sent", Value(tally.later_never_sent));
  Publish("later.peer_gone", Value(tally.later_peer_gone));
  PublishNone("later.lost", Value(tally.later_lost));
  Publish("later.host_killed", Value(tally.later_host_killed));
  Publish("later.host_stopped", Value(tally.later_host_stopped));
  PublishNone("later.miscounted", static_cast<double>(requests_miscounted_));
  PublishNone("later.unasked", Value(tally.later_unasked));
  Publish("notifications", Value(tally.notices));
  Publish("notifications_failed", Value(tally.notices_failed));
}

void Killing::PrintEvents() const {
  const Tally& tally = stage_.tally();
  Publish("events", Value(tally.events));
  Publish("events_swapped", Value(tally.events_swapped));
  PrintFigure("death.events_swapped_share", 100 * Value(tally.events_swapped) / Value(tally.events), "%",
              Bound::kAtMost, kMostSwapped);
  PublishNone("events_out_of_order", Value(tally.events_out_of_order));
}

}  // namespace

void RunKills(const KillOptions& options) {
  std::printf("seed %u\n", options.seed);
  Killing killing(options);
  killing.Run();
  killing.PrintFigures();
}

}  // namespace trust::death
