#include "Kills.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "KillFigures.h"
#include "Stage.h"
#include "Tally.h"
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
      if (counts_.kills - stopped < kKillsBetweenStops || !GoesOn()) continue;
      Stop();
      StartHost();
      Look();
      stopped = counts_.kills;
      std::printf("%d kills\n", counts_.kills);
    }
    Stop();
    counts_.took_s = std::chrono::duration<double>(Clock::now() - began).count();
  }

  void PrintFigures() { PrintKillFigures(counts_, options_.kills, stage_.tally()); }

 private:
  bool GoesOn() const { return counts_.kills < options_.kills && counts_.failed < kMostFailed; }
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
      ++counts_.failed;
      return;
    }
    if (program == stage_.Agent()) {
      Stage::KillAndWait(victim);
    } else {
      tolm::test::KillProcess(victim);
    }
    ++count;
    ++counts_.kills;
  }
  void KillPlugin(std::size_t plugin) {
    Kill(stage_.Plugin(stage_.plugins()[plugin]), counts_.plugins, plugin);
  }
  void KillHost() {
    stage_.KillHost();
    TakeOverRequests();
    ++counts_.hosts;
    ++counts_.kills;
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
  void Fail(const char* what) {
    std::printf("kill %d: %s\n", counts_.kills, what);
    if (++shown_ <= kMostShown) stage_.ShowLogs();
  }

  const KillOptions options_;
  std::minstd_rand random_;
  Stage stage_;
  KillCounts counts_;
  std::size_t shown_ = 0;
  std::uint64_t shown_unexplained_ = 0;
  std::int64_t requests_astray_ = 0;  // sent less counted, of hosts that had stopped in order
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
    Kill(stage_.guard(), counts_.guards, kEverybody);
  } else if (dice < 78) {
    KillHost();
  } else if (dice < 87) {
    KillWhileItStops();
    StartHost();
  } else {
    // Nobody but a frame that starts makes an agent.
    Kill(stage_.Agent(), counts_.agents, kEverybody);
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
    ++(is_plugin                          ? counts_.plugins
       : victim->second == stage_.Host()  ? counts_.hosts
       : victim->second == stage_.Agent() ? counts_.agents
                                          : counts_.guards);
    ++counts_.kills;
    ++counts_.in_stops;
  }
  const auto exit = stage_.host().WaitExit(kPatience);
  if (!exit) {
    ++counts_.failed;
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
  std::printf("kill %d: %lld requests are not counted once\n", counts_.kills,
              static_cast<long long>(undecided));
  counts_.requests_miscounted += static_cast<std::uint64_t>(std::abs(undecided));
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
    ++counts_.failed;
    Fail("not all plugins serve again");
  }
  counts_.slowest_return_s =
      std::max(counts_.slowest_return_s, std::chrono::duration<double>(Clock::now() - began).count());
  const auto wrong = stage_.WrongProcesses();
  for (const std::string& one : wrong) std::printf("kill %d: %s\n", counts_.kills, one.c_str());
  counts_.orphans += wrong.size();
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
    ++counts_.failed;
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
  counts_.slowest_end_s = std::max(counts_.slowest_end_s, static_cast<double>(NowNs() - now) / 1e9);
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
    ++counts_.failed;
    Fail("the host does not stop in order");
    stage_.KillHost();
    TakeOverRequests();
  } else {
    CheckRequests();
  }
  counts_.orphans += stage_.ProcessesThatStay();
  counts_.files += stage_.FilesThatStay();
  if (ReviewCallers(stage_.tally(), NowNs()) != 0) {
    ++counts_.failed;
    Fail("a call is under way without a process");
  }
}

}  // namespace

void RunKills(const KillOptions& options) {
  std::printf("seed %u\n", options.seed);
  Killing killing(options);
  killing.Run();
  killing.PrintFigures();
}

}  // namespace trust::death
