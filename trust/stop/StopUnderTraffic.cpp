// The frame is stopped in the middle of everything that it can be in the middle of, over and over in one
// process.
//
//   trust_stop [--rounds N] [--seed N] [--patient]

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Agent.h"
#include "Callers.h"
#include "Guard.h"
#include "Life.h"
#include "Plugins.h"
#include "Stage.h"
#include "support/Figures.h"
#include "support/Wait.h"

namespace trust {
namespace {

using namespace TolmLPCFrame;
using Clock = std::chrono::steady_clock;

constexpr int kPlugins = 4;
constexpr int kNobody = -1;
/// So long a frame that runs after all has for an answer.
constexpr int kAnswersWithinMs = 1000;
/// So long the frame waits for the agent, by the system's clock.
constexpr int kAgentAnswerMs = 5000;
// So many rounds live with the same plugins; others begin anew.
constexpr long kRoundsOfPlugins = 25;

/// How a round is ended.
struct Ending {
  int hosts = 0;                               ///< threads of the host that stop the frame
  std::array<int, 2> kinds{kNobody, kNobody};  ///< kinds of events in whose callbacks it is stopped
};

/// What the callbacks of the round do.
struct Script {
  std::atomic<bool> slow{false};
  std::array<std::atomic<bool>, 6> stops{};
  std::atomic<int> stops_begun{0};
  std::atomic<int> stops_returned{0};
  std::atomic<long> stops_by_callbacks{0};
  std::atomic<long> results_other_than_0{0};
};
Script script;

void StopTheFrame() {
  if (TolmLPCFrameUnInit() != kFrameOk) ++script.results_other_than_0;
}

void Answer(const LPCData& question) {
  LPCData answer;
  answer.msg_type = kMsgTypeReply;
  answer.dst_id = question.src_id;
  answer.msg_id = question.msg_id;
  answer.url = question.url;
  answer.body = "answer";
  std::uint64_t id = 0;
  AsyncSend(id, answer);
}

bool Ask(const char* url, const char* dst_id = "", int time_out = kForever) {
  LPCData question;
  LPCData answer;
  question.url = url;
  question.dst_id = dst_id;
  question.body = "question";
  return SyncSend(answer, question, time_out);
}

void OnEvent(const FrameCallBackData& event, long /*life*/) {
  const auto kind = static_cast<std::size_t>(event.LpcMsgType);
  if (script.stops[kind]) {
    ++script.stops_begun;
    const bool stops = script.stops[kind].exchange(false);
    if (stops) {
      StopTheFrame();
      ++script.stops_by_callbacks;
    }
    ++script.stops_returned;
    if (stops) return;
  }
  if (script.slow) LetPass(std::chrono::milliseconds(3));
  const LPCData& data = event.lpc_data;
  if (event.LpcMsgType == kLpcMsgLpcData && data.msg_type == kMsgTypeRequest && data.url != "/host/never") {
    if (data.url == "/host/asks") Ask("/p0/never", "p0");
    Answer(data);
  }
  if (event.LpcMsgType == kLpcMsgPluginInited) Ask("/p1/fast", "p1");
  if (event.LpcMsgType == kLpcMsgPush) Ask("/p2/fast", "p2");
}

/// A call to a listed plugin that has been ready reaches the transport, which has a code for every failure.
bool EndsWithACode(bool answered) {
  return answered || GetLPCLastError() != 0;
}

/// For who waits for nothing: what is sent is to be worked on in the same time.
void RestAWhile() {
  LetPass(std::chrono::milliseconds(IsWatched() ? 20 : 4));
}

void AddCallersOfTheHost(Callers& callers) {
  for (const char* url : {"/p0/fast", "/p1/slow", "/p2/back", "/p3/hop"}) {
    callers.Add([url, dst_id = std::string(url, 1, 2)] { return EndsWithACode(Ask(url, dst_id.c_str())); });
  }
  for (int i = 0; i < 2; ++i) callers.Add([] { return EndsWithACode(Ask("/p0/never", "p0")); });
  // By its url only; it is not known between two lives, and then nobody is asked.
  callers.Add([] { return Ask("/p1/fast"), true; });
  callers.Add([] {
    LPCData later;
    later.url = "/p3/slow";
    RestAWhile();
    std::uint64_t id = 0;
    AsyncSend(id, later);
    later.msg_type = kMsgTypeNotify;
    AsyncSend(id, later);
    return true;
  });
  callers.Add([] {
    int time_out = 0;
    std::vector<std::string> headers;
    IsPluginURL(time_out, "/p0/fast");
    GetHttpHeaders(headers);
    RegisterUrl({"/host/answers"});
    TolmLPCFrameStartPlugin("p1");
    TolmLPCFrameNotifyStartPlugins("--endpoint trust-stop");
    return true;
  });
}

void AddCallersOfPlugins(Callers& callers, std::vector<std::unique_ptr<EagerPlugin>>& plugins) {
  const char* const urls[kPlugins][3] = {{"/host/answers", "/p1/fast", "/host/asks"},
                                         {"/host/never", "/p2/slow", "/p3/never"},
                                         {"/host/answers", "/p3/hop", "/host/answers"},
                                         {"/host/asks", "/p0/back", "/p0/never"}};
  for (int i = 0; i < kPlugins; ++i) {
    EagerPlugin& plugin = *plugins[static_cast<std::size_t>(i)];
    for (const char* url : urls[i]) callers.Add([&plugin, url] { return plugin.Call(url); });
    callers.Add([&plugin] {
      RestAWhile();
      plugin.plugin().Push("tag", {});
      plugin.plugin().Notify({.url = "/host/told"});
      return plugin.plugin().CallLater({.url = "/host/answers"}) != 0 ||
             TolmPlugin::Plugin::LastError() != lpc::kOk;
    });
  }
  // One that comes and goes, with its registration and its events.
  callers.Add([] {
    TolmPlugin::Plugin guest("guest");
    guest.Serve("/guest/x", [](const TolmPlugin::Request&) { return TolmPlugin::Message{}; });
    guest.Start(kEndpointOfStage);
    guest.WaitReady(20);
    return true;
  });
}

Ending AnyEnding(std::mt19937& random) {
  if (random() % 4 != 0) return {.hosts = 1};
  const int kind = static_cast<int>(random() % 6);
  const int other = static_cast<int>((static_cast<unsigned>(kind) + 1 + random() % 5) % 6);
  switch (random() % 5) {
    case 0:
      return {.hosts = 2};
    case 1:
      return {.kinds = {kind, kNobody}};
    case 2:
      return {.kinds = {kind, other}};
    case 3:
      return {.hosts = 1, .kinds = {kind, kNobody}};
    default:
      return {.hosts = 2, .kinds = {kind, other}};
  }
}

/// What is measured over all rounds.
struct Measured {
  long rounds = 0;  ///< in which the frame was started, and then was not there any more
  long unanswered = 0;
  long failed_starts = 0;
  long left_running = 0;
  double slowest_ms = 0;
  double slowest_shared_ms = 0;
};

/// A thousandth of 3 s for the guard and of ten looks, the slowest callback, up to 1 s for the guard's
/// endpoint, and the machine's other work.
constexpr double kMostMs = 2000;

void StopAs(const Ending& ending, int frame_type, Life& life, Measured& measured) {
  const auto begin = Clock::now();
  script.stops_begun = 0;
  script.stops_returned = 0;
  // Who stops alone, from outside of all callbacks, finds none behind his stop; of several the first to
  // return does not know of the others' callbacks, nor does one of them of his own.
  const bool stops_alone = ending.hosts == 1 && ending.kinds[0] == kNobody;
  for (const int kind : ending.kinds) {
    if (kind != kNobody) script.stops[static_cast<std::size_t>(kind)] = true;
  }
  {
    std::vector<std::jthread> hosts;
    for (int i = 0; i < ending.hosts; ++i) {
      hosts.emplace_back([&] {
        StopTheFrame();
        if (!stops_alone) return;
        life.Over();
        if (life.Inside() > 0) ++measured.left_running;
      });
    }
    if (ending.hosts == 0) {
      // Events of some kinds come only now and then; a host that has waited in vain stops the frame itself.
      tolm::test::WaitFor([] { return script.stops_begun > 0; }, std::chrono::milliseconds(100));
      for (auto& stops : script.stops) stops = false;
      if (script.stops_begun == 0) hosts.emplace_back(StopTheFrame);
    }
  }
  for (auto& stops : script.stops) stops = false;
  while (script.stops_returned < script.stops_begun) LetPass(std::chrono::microseconds(100));
  life.Over();
  // Of several stops at once each signals the agent and waits for its answer, and one may take the other's.
  const bool share_the_agent = frame_type == 1 && ending.hosts + script.stops_begun > 1;
  double& slowest = share_the_agent ? measured.slowest_shared_ms : measured.slowest_ms;
  const double spent = MillisecondsSince(begin);
  slowest = std::max(slowest, spent);
  if (spent > kMostMs) {
    std::printf("a stop by %d threads and by the callbacks %d and %d with the frame's type %d took %.0f ms\n",
                ending.hosts, ending.kinds[0], ending.kinds[1], frame_type, spent);
  }
  // Of several stops only the host's own waits for the callback that it is not called in.
  if (!tolm::test::WaitFor([&] { return life.Inside() == 0; })) ++measured.left_running;
  // Nobody is there to pass a call on.
  if (!Ask("/p0/fast", "p0", kAnswersWithinMs)) ++measured.rounds;
}

void PrintAll(const Measured& measured, long rounds, const Callers& callers, bool patient) {
  PrintFigure("stop.rounds", static_cast<double>(measured.rounds), "stops", Bound::kExactly,
              static_cast<double>(rounds));
  PrintFigure("stop.hung", 0, "calls", Bound::kExactly, 0);
  PrintFigure("stop.failed_stops", static_cast<double>(script.results_other_than_0), "calls", Bound::kExactly,
              0);
  PrintFigure("stop.failed_starts", static_cast<double>(measured.failed_starts), "calls", Bound::kExactly, 0);
  PrintFigure("stop.from_callbacks", static_cast<double>(script.stops_by_callbacks), "stops");
  PrintFigure("stop.callbacks_after", static_cast<double>(Life::CallbacksAfter()), "callbacks",
              Bound::kExactly, 0);
  PrintFigure("stop.callbacks_left", static_cast<double>(measured.left_running), "callbacks", Bound::kExactly,
              0);
  PrintFigure("stop.calls", static_cast<double>(callers.Done()), "calls");
  PrintFigure("stop.calls_unanswered", static_cast<double>(measured.unanswered), "calls", Bound::kExactly, 0);
  PrintFigure("stop.calls_without_code", static_cast<double>(callers.WithoutCode()), "calls", Bound::kExactly,
              0);
  PrintFigure("stop.slowest_ms", measured.slowest_ms, "ms", Bound::kAtMost, MostMs(kMostMs, patient));
  PrintFigure("stop.slowest_shared_agent_ms", measured.slowest_shared_ms, "ms", Bound::kAtMost,
              MostMs(kMostMs, patient) + kAgentAnswerMs);
  constexpr const char* kKinds[] = {"message", "push", "connected", "disconnected", "inited", "uninited"};
  const auto seen = Life::Seen();
  for (std::size_t kind = 0; kind < seen.size(); ++kind) {
    PrintFigure(std::string("stop.events.") + kKinds[kind], static_cast<double>(seen[kind]), "events",
                Bound::kAtLeast, 1);
  }
}

int Main(int argc, char** argv) {
  const long rounds = Argument(argc, argv, "--rounds", 2000);
  std::mt19937 random(static_cast<unsigned>(Argument(argc, argv, "--seed", 1)));
  const Stage stage;
  Watchdog watchdog("stop.hung", std::chrono::seconds(60));
  PrintFigure("stop.result_without_start", TolmLPCFrameUnInit(), "result", Bound::kExactly, kFrameFailed);

  Measured measured;
  std::vector<std::unique_ptr<EagerPlugin>> plugins;
  std::unique_ptr<MutePlugin> mute;
  std::unique_ptr<Callers> callers_of_plugins;
  Callers callers;
  for (long round = 0; round < rounds; ++round) {
    // Every combination of these comes once in 48 rounds; what else there is, by chance.
    const auto guard_kind = static_cast<Guard::Kind>(round % 4);
    const bool mute_answers = round / 4 % 2 == 0;
    const int frame_type = static_cast<int>(round / 8 % 3);
    script.slow = round / 24 % 2 == 0;
    watchdog.Look("the start", round);
    Life life(OnEvent);
    const Agent agent(frame_type == 1 && random() % 2 == 0);
    if (TolmLPCFrameInit(kEndpointOfStage, Listed(kPlugins, frame_type)) != kFrameOk) {
      ++measured.failed_starts;
      life.Over();
      continue;
    }
    if (plugins.empty()) {
      watchdog.Look("new plugins", round);
      if (!mute) mute = std::make_unique<MutePlugin>();
      for (int i = 0; i < kPlugins; ++i) plugins.push_back(std::make_unique<EagerPlugin>(i, kPlugins));
      for (const auto& plugin : plugins) {
        if (!plugin->WaitReady()) ++measured.failed_starts;
      }
      // The frame takes note of that a moment later.
      for (const char* id : {"p0", "p1", "p2", "p3"}) {
        const std::string url = std::string("/") + id + "/fast";
        if (!tolm::test::WaitFor([&] { return Ask(url.c_str(), id); })) ++measured.failed_starts;
      }
      callers_of_plugins = std::make_unique<Callers>();
      AddCallersOfPlugins(*callers_of_plugins, plugins);
      if (callers.Count() == 0) AddCallersOfTheHost(callers);
    }
    mute->AnswerUninit(mute_answers);
    const Guard guard(guard_kind, frame_type);
    // From the moment in which everybody comes back to the full traffic.
    if (random() % 5 != 0) {
      watchdog.Look("coming back", round);
      for (const auto& plugin : plugins) plugin->WaitReady();
      LetPass(std::chrono::microseconds(random() % 20'000));
    }
    watchdog.Look("the stop", round);
    StopAs(AnyEnding(random), frame_type, life, measured);
    watchdog.Look("the calls", round);
    measured.unanswered += callers.WaitForThoseUnderWay() + callers_of_plugins->WaitForThoseUnderWay();
    if ((round + 1) % kRoundsOfPlugins == 0) {
      watchdog.Look("the end of plugins", round);
      callers_of_plugins.reset();
      plugins.clear();
    }
  }
  watchdog.Look("the end", rounds);
  PrintAll(measured, rounds, callers, IsPatient(argc, argv));
  callers.End();
  callers_of_plugins.reset();
  plugins.clear();
  mute.reset();
  return AllKept() ? 0 : 1;
}

}  // namespace
}  // namespace trust

int main(int argc, char** argv) {
  return trust::Main(argc, argv);
}
