#include "Moments.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Stage.h"
#include "support/Figures.h"
#include "support/Processes.h"
#include "support/System.h"
#include "support/Wait.h"

namespace trust::death {
namespace {

namespace fs = std::filesystem;
using tolm::test::ChildProcess;
using tolm::test::KillProcess;
using tolm::test::ProcessId;
using tolm::test::WaitFor;

const std::string kId = "a";
constexpr int kLongRounds = 10;

/// One moment: what is expected is written as a row of steps, of which the first that fails ends the round.
class Moment {
 public:
  Moment(std::string name, bool gated) : name_(std::move(name)) {
    stage_.AddPlugins({kId}, 0);
    if (gated) stage_.AddGate();
  }

  void Play(int rounds, const std::function<void(Moment&)>& round) {
    int failed = 0;
    double slowest = 0;
    for (int i = 0; i < rounds; ++i) {
      const auto began = std::chrono::steady_clock::now();
      failed_.clear();
      round(*this);
      if (!failed_.empty()) {
        ++failed;
        std::printf("%s, round %d: %s\n", name_.c_str(), i, failed_.c_str());
        stage_.ShowLogs();
        tolm::test::KillProcessesBelow(stage_.path());
      }
      slowest =
          std::max(slowest, std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
    }
    PrintFigure("moment." + name_ + ".rounds", rounds, "count");
    PrintFigure("moment." + name_ + ".failed", failed, "count", Bound::kExactly, 0);
    PrintFigure("moment." + name_ + ".slowest_s", slowest, "s");
  }

  void Expect(bool held, const std::string& what) {
    if (!held && failed_.empty()) failed_ = what;
  }
  bool goes_on() const { return failed_.empty(); }

  // The steps.

  void Script(const std::string& word) { stage_.Script(kId, word); }
  ChildProcess& StartHost() {
    calls_ = 0;
    return stage_.StartHost(true);
  }
  /// Waits until a plugin's script has made this file; gives the process.
  ProcessId Reached(const std::string& what = "reached") { return ReadId(stage_.PluginFolder(kId) / what); }
  ProcessId ReadId(const fs::path& file) {
    if (!goes_on()) return -1;
    Expect(WaitFor([&] { return fs::exists(file); }, kPatience), file.filename().string() + " does not come");
    ProcessId id = -1;
    std::ifstream(file) >> id;
    return id;
  }
  void Go() { std::ofstream(stage_.PluginFolder(kId) / "go"); }
  void Kill(ProcessId process) {
    if (process > 0) KillProcess(process);
  }
  void SeeGone(ProcessId process, const char* who) {
    if (!goes_on()) return;
    Expect(WaitFor([&] { return !tolm::test::IsAlive(process); }, kPatience), std::string(who) + " stays");
  }
  void See(const std::string& line, std::size_t count = 1) {
    if (!goes_on()) return;
    Expect(stage_.host().WaitForLines(line, count, kPatience), "the host does not print \"" + line + "\"");
  }
  void Call(const std::string& url) {
    stage_.host().Type("call " + url);
    ++calls_;
  }
  void SeeCallEnd(const std::string& how) { See("call " + std::to_string(calls_) + ": " + how); }
  /// Asks again and again while the answer is another one.
  void SeeServed(const std::string& url, bool served) {
    if (!goes_on()) return;
    const std::string line = url + (served ? " is served" : " is not served");
    Expect(WaitFor(
               [&] {
                 stage_.host().Type("serves " + url);
                 return stage_.host().WaitForLine(line, std::chrono::milliseconds(100)).has_value();
               },
               kPatience),
           "not " + line);
  }
  /// Everything runs once, the plugin answers, and in the end nothing stays.
  void SeeAllWell() {
    if (!goes_on()) return;
    const auto wrong = stage_.WrongProcesses();
    Expect(wrong.empty(), wrong.empty() ? "" : wrong.front());
    Call("/a/echo");
    SeeCallEnd("answer");
    Expect(stage_.StopHost(), "the host does not stop in order");
    Expect(stage_.ProcessesThatStay() == 0, "a process stays");
    Expect(stage_.FilesThatStay() == 0, "a file stays");
  }

  Stage& stage() { return stage_; }

 private:
  const std::string name_;
  Stage stage_;
  std::string failed_;
  int calls_ = 0;  // of this host
};

void HostBeforeFirstMessage(Moment& moment) {
  moment.Script("hold-start");
  moment.StartHost();
  const ProcessId plugin = moment.Reached();
  moment.stage().KillHost();
  moment.StartHost();
  moment.Go();
  moment.See("plugin a: initialised");
  moment.Expect(tolm::test::IsAlive(plugin), "the plugin did not outlive the host");
  moment.SeeAllWell();
}

void GuardBeforeHandshake(Moment& moment) {
  ChildProcess& host = moment.StartHost();
  moment.See("plugin a: initialised");
  moment.Call("/a/exit");
  moment.SeeCallEnd("code 7");
  moment.See("plugin a: uninitialised");
  moment.Script("hold-start");
  host.Type("start a");
  const ProcessId plugin = moment.Reached();
  moment.Kill(moment.stage().AnyProcessOf(moment.stage().guard()));
  moment.SeeGone(plugin, "the plugin of the killed guard");
  moment.See("plugin a: initialised", 2);
  moment.SeeAllWell();
}

void AgentStartsGuard(Moment& moment) {
  const fs::path folder = moment.stage().guard().parent_path();
  fs::remove(folder / "reached");
  std::ofstream(folder / "held");
  moment.StartHost();
  const ProcessId guard = moment.ReadId(folder / "reached");
  Stage::KillAndWait(moment.stage().AnyProcessOf(moment.stage().Agent()));
  moment.SeeGone(guard, "the guard of the killed agent");
  moment.stage().KillHost();
  fs::remove(folder / "held");
  moment.StartHost();
  moment.See("plugin a: initialised");
  moment.SeeAllWell();
}

void PluginInHandshake(Moment& moment, const char* script) {
  moment.Script(script);
  moment.StartHost();
  moment.Kill(moment.Reached());
  moment.See("plugin a: initialised");
  moment.SeeAllWell();
}

void PluginRegistered(Moment& moment) {
  moment.Script("registered");
  moment.StartHost();
  const ProcessId plugin = moment.Reached();
  moment.SeeServed("/a/echo", true);
  moment.Call("/a/echo");
  moment.SeeCallEnd("code 0");
  moment.Kill(plugin);
  moment.See("plugin a: disconnected");
  moment.See("plugin a: initialised");
  moment.SeeAllWell();
}

void PluginInBigReply(Moment& moment) {
  moment.Script("big-reply");
  moment.StartHost();
  moment.See("plugin a: initialised");
  moment.Call("/a/big");
  const ProcessId plugin = moment.Reached();
  // The host takes nothing of it, so what does not fit into the socket stays with the plugin.
  moment.stage().host().Freeze();
  moment.Go();
  moment.Reached("middle");
  moment.Kill(plugin);
  moment.SeeGone(plugin, "the plugin");
  moment.stage().host().Thaw();
  moment.SeeCallEnd("code 7");
  moment.See("plugin a: initialised", 2);
  moment.SeeAllWell();
}

void PluginWithCallback(Moment& moment) {
  moment.Script("hold-callback");
  moment.StartHost();
  const ProcessId plugin = moment.Reached();
  moment.See("holding a request of a");
  moment.Kill(plugin);
  moment.See("plugin a: disconnected");
  moment.See("plugin a: initialised", 2);
  moment.Go();
  moment.See("the held request was");
  moment.SeeAllWell();
}

void HostStaysAway(Moment& moment) {
  moment.StartHost();
  moment.See("plugin a: initialised");
  moment.stage().KillHost();
  moment.Expect(moment.stage().ProcessesThatStay() == 0, "a process stays without a host");
  moment.StartHost();
  moment.See("plugin a: initialised");
  moment.SeeAllWell();
}

struct Named {
  const char* name;
  bool gated;
  std::function<void(Moment&)> round;
};

}  // namespace

void RunMoments(int rounds) {
  const std::vector<Named> moments{
      {"host_before_first_message", false, HostBeforeFirstMessage},
      {"guard_before_handshake", false, GuardBeforeHandshake},
      {"agent_starts_guard", true, AgentStartsGuard},
      {"plugin_half_hello", false, [](Moment& moment) { PluginInHandshake(moment, "half-hello"); }},
      {"plugin_hello", false, [](Moment& moment) { PluginInHandshake(moment, "hello"); }},
      {"plugin_registered", false, PluginRegistered},
      {"plugin_in_big_reply", false, PluginInBigReply},
      {"plugin_with_callback", false, PluginWithCallback},
  };
  for (const Named& one : moments) Moment(one.name, one.gated).Play(rounds, one.round);
  // The agent waits ten seconds for a host.
  Moment("host_stays_away", false).Play((rounds + kLongRounds - 1) / kLongRounds, HostStaysAway);
}

}  // namespace trust::death
