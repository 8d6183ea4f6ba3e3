// Calls that wait, made where the frame or a plugin calls its user: each ends within its time-out, also when
// all threads of a pool are in such calls.
//
//   trust_calls_from_callbacks [--calls N] [--patient]

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Callers.h"
#include "Guard.h"
#include "Life.h"
#include "Plugins.h"
#include "Stage.h"
#include "TolmLPCFrameDiagnostics.h"
#include "support/Figures.h"
#include "support/Wait.h"

namespace trust {
namespace {

using namespace TolmLPCFrame;
using Clock = std::chrono::steady_clock;

constexpr int kPlugins = 4;
constexpr int kTimeOut = 5000;
/// Of a call for which no thread is left to answer it.
constexpr int kShortTimeOut = 300;
/// So long an answer may take, which is some hundred times what it does with nothing else to do.
constexpr double kAnswerMs = 1000;
/// So long is waited for each of the calls that are wanted, of the kinds that come most seldom.
constexpr std::chrono::milliseconds kMostOfACall(50);
/// More than the pool of the host's callback has threads.
constexpr int kMoreThanThreads = 40;

/// How the calls of a place end.
enum class End {
  kAnswered,         ///< each with an answer
  kMayBeEarly,       ///< with an answer, or at once as long as there is no connection yet
  kNobodyIsThere,    ///< there is no frame any more, or the connection ends under the call
  kNobodyHasThread,  ///< some in vain, as long as all threads wait
};

bool Fits(End end, int code) {
  switch (end) {
    case End::kAnswered:
      return code == lpc::kOk;
    case End::kMayBeEarly:
      return code == lpc::kOk || code == lpc::kNotConnected;
    case End::kNobodyIsThere:
      return code == lpc::kNotConnected || code == lpc::kPeerGone;
    case End::kNobodyHasThread:
      return code == lpc::kOk || code == lpc::kTimeOut;
  }
  return false;
}

/// Where calls are made.
struct Place {
  explicit Place(const char* its_name, End its_end = End::kAnswered) : name(its_name), end(its_end) {}

  /// One call from here, by `call`, which gives a code, and kOk for an answer.
  template <typename Call>
  void Ask(int time_out, Call&& call) {
    const auto begin = Clock::now();
    const int code = call(time_out);
    const double spent = MillisecondsSince(begin);
    double before = slowest_ms;
    while (before < spent && !slowest_ms.compare_exchange_weak(before, spent)) {
    }
    ++calls;
    if (code == lpc::kOk) ++answered;
    if (code < 0) ++without_code;
    if (!Fits(end, code)) {
      ++unfit;
      last_unfit_code = code;
    }
  }
  void AskAsHost(int time_out = kTimeOut, const char* url = "/p1/fast", const char* dst_id = "p1") {
    Ask(time_out, [&](int limit) {
      LPCData question;
      LPCData answer;
      question.url = url;
      question.dst_id = dst_id;
      if (SyncSend(answer, question, limit)) return static_cast<int>(lpc::kOk);
      return GetLPCLastError() != lpc::kOk ? GetLPCLastError() : -1;
    });
  }
  void AskAsPlugin(TolmPlugin::Plugin& plugin) {
    Ask(kTimeOut, [&](int limit) {
      TolmPlugin::Message answer;
      if (plugin.Call(answer, {.url = "/p1/fast"}, limit)) return static_cast<int>(lpc::kOk);
      return TolmPlugin::Plugin::LastError() != lpc::kOk ? TolmPlugin::Plugin::LastError() : -1;
    });
  }

  const char* const name;
  const End end;
  std::atomic<long> calls{0};
  std::atomic<long> answered{0};
  std::atomic<long> without_code{0};
  std::atomic<long> unfit{0};  ///< that ended in another way than the place's
  std::atomic<int> last_unfit_code{lpc::kOk};
  std::atomic<double> slowest_ms{0};
};

Place by_kind[] = {Place("message"),      Place("push"),   Place("connected"),
                   Place("disconnected"), Place("inited"), Place("uninited")};
Place in_answer("answer");
Place in_log_sink("log_sink");
Place in_handler("plugin_handler");
// Runs while the plugin connects.
Place in_init("plugin_init", End::kMayBeEarly);
Place in_ready("plugin_ready");
Place in_lost("plugin_lost", End::kNobodyIsThere);
Place in_plugins_answer("plugin_answer");
Place in_all_threads("all_threads", End::kNobodyHasThread);

/// Whether "p1" has been ready: before that it is not asked.
std::atomic<bool> p1_is_ready{false};

void OnEvent(const FrameCallBackData& event, long /*life*/) {
  if (!p1_is_ready) return;
  const LPCData& data = event.lpc_data;
  if (data.url == "/host/all") {
    // The plugin's handler asks the host in turn, for which no thread is left.
    in_all_threads.AskAsHost(kShortTimeOut, "/p2/back", "p2");
    return;
  }
  if (event.LpcMsgType == kLpcMsgLpcData && data.msg_type == kMsgTypeReply) {
    in_answer.AskAsHost();
    return;
  }
  if (data.src_id != "p2") by_kind[event.LpcMsgType].AskAsHost();
  if (event.LpcMsgType != kLpcMsgLpcData || data.msg_type != kMsgTypeRequest) return;
  LPCData answer;
  answer.msg_type = kMsgTypeReply;
  answer.dst_id = data.src_id;
  answer.msg_id = data.msg_id;
  std::uint64_t id = 0;
  AsyncSend(id, answer);
}

void OnLogLine(int /*level*/, const char* /*tag*/, const char* /*text*/, void* /*user*/) {
  static std::atomic<unsigned> lines{0};
  thread_local bool is_inside = false;
  // A call says something itself; and most lines are of that kind.
  if (is_inside || ++lines % 16 != 0) return;
  is_inside = true;
  in_log_sink.AskAsHost();
  is_inside = false;
}

/// Has calls made in the hooks and handlers of a plugin of its own.
class Caller {
 public:
  Caller() {
    plugin_.Serve("/caller/asks", [this](const TolmPlugin::Request&) {
      in_handler.AskAsPlugin(plugin_);
      asked_ = true;
      return TolmPlugin::Message{};
    });
    plugin_.OnInit([this] { in_init.AskAsPlugin(plugin_); });
    plugin_.OnReady([this] {
      in_ready.AskAsPlugin(plugin_);
      plugin_.CallLater({.url = "/p3/fast"});
    });
    plugin_.OnLost([this](const std::string&) { in_lost.AskAsPlugin(plugin_); });
    plugin_.OnAnswer([this](std::uint64_t, const TolmPlugin::Message&) {
      in_plugins_answer.AskAsPlugin(plugin_);
      answered_ = true;
    });
    plugin_.Start(kEndpointOfStage);
  }
  ~Caller() { plugin_.Stop(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  bool Answered() const { return answered_; }
  bool Asked() const { return asked_; }

 private:
  std::atomic<bool> answered_{false};
  std::atomic<bool> asked_{false};
  TolmPlugin::Plugin plugin_{"caller"};
};

void SendLater(const char* url, const char* dst_id) {
  LPCData request;
  request.url = url;
  request.dst_id = dst_id;
  std::uint64_t id = 0;
  AsyncSend(id, request);
}

/// Whether times are not judged.
bool patient = false;

void Print(const Place& place, long least, double most_ms) {
  const std::string name = std::string("stop.syncsend_from_callbacks.") + place.name;
  PrintFigure(name + ".calls", static_cast<double>(place.calls), "calls", Bound::kAtLeast,
              static_cast<double>(least));
  PrintFigure(name + ".without_code", static_cast<double>(place.without_code), "calls", Bound::kExactly, 0);
  const std::string unfit = name + (place.end == End::kAnswered ? ".unanswered" : ".other_codes");
  if (place.unfit > 0)
    std::printf("the last one in %s had the code %d\n", place.name, +place.last_unfit_code);
  if (patient) {
    // Where the processor is late, a guard's word on a plugin's end may still be in force when it is called.
    PrintFigure(unfit, static_cast<double>(place.unfit), "calls");
  } else {
    PrintFigure(unfit, static_cast<double>(place.unfit), "calls", Bound::kExactly, 0);
  }
  PrintFigure(name + ".slowest_ms", place.slowest_ms, "ms", Bound::kAtMost, MostMs(most_ms, patient));
}

int Main(int argc, char** argv) {
  const long calls = Argument(argc, argv, "--calls", 200);
  patient = IsPatient(argc, argv);
  const std::chrono::milliseconds patience = std::chrono::seconds(100) + calls * kMostOfACall;
  const Stage stage;
  Watchdog watchdog("stop.syncsend_from_callbacks.hung",
                    std::chrono::ceil<std::chrono::seconds>(patience) + std::chrono::seconds(20));
  Life life(OnEvent);
  if (TolmLPCFrameInit(kEndpointOfStage, Listed(kPlugins, 0)) != kFrameOk) return 1;
  std::vector<std::unique_ptr<EagerPlugin>> plugins;
  for (int i = 0; i < kPlugins; ++i) plugins.push_back(std::make_unique<EagerPlugin>(i, kPlugins));
  for (const auto& plugin : plugins) plugin->WaitReady();
  // The frame takes note of that a moment later.
  LPCData answer;
  LPCData question;
  question.url = "/p1/fast";
  if (!tolm::test::WaitFor([&] { return SyncSend(answer, question, kTimeOut); })) return 1;
  p1_is_ready = true;

  {
    watchdog.Look("callbacks", 0);
    const Guard guard(Guard::Kind::kAnswers, 0);
    Callers drivers;
    drivers.Add([&] { return plugins[0]->Call("/host/answers"); });
    drivers.Add([&] { return plugins[3]->plugin().Push("tag", {}); });
    drivers.Add([] { return SendLater("/p3/fast", "p3"), true; });
    drivers.Add([] {
      const Caller caller;
      tolm::test::WaitFor([&] { return caller.Answered(); });
      SendLater("/caller/asks", "caller");
      tolm::test::WaitFor([&] { return caller.Asked(); });
      return true;
    });
    Place* const wanted[] = {&by_kind[0], &by_kind[1],        &by_kind[2], &by_kind[3],
                             &by_kind[4], &by_kind[5],        &in_answer,  &in_ready,
                             &in_init,    &in_plugins_answer, &in_handler};
    const auto all_there = [&] {
      return std::all_of(std::begin(wanted), std::end(wanted),
                         [&](const Place* place) { return place->calls >= calls; });
    };
    tolm::test::WaitFor(all_there, patience);
    watchdog.Look("log lines", 0);
    SetLogLevel(kLogTrace);
    SetLogSink(OnLogLine, nullptr);
    tolm::test::WaitFor([&] { return in_log_sink.calls >= calls; }, patience);
    SetLogSink(nullptr, nullptr);
    SetLogLevel(kLogNothing);
  }
  const long in_time = in_log_sink.calls;
  watchdog.Look("all threads", 0);
  for (int i = 0; i < kMoreThanThreads; ++i) plugins[2]->plugin().Notify({.url = "/host/all"});
  tolm::test::WaitFor([] { return in_all_threads.calls == kMoreThanThreads; }, patience);
  // And then everything is as before.
  Place afterwards("afterwards");
  afterwards.AskAsHost(kTimeOut, "/p2/back", "p2");

  // Plugins that lose the frame call it while it goes.
  watchdog.Look("the end of the frame", 0);
  {
    const Caller caller;
    tolm::test::WaitFor([&] { return caller.Answered(); });
    TolmLPCFrameUnInit();
    life.Over();
    tolm::test::WaitFor([] { return in_lost.calls > 0; });
  }
  plugins.clear();

  PrintFigure("stop.syncsend_from_callbacks.hung", 0, "calls", Bound::kExactly, 0);
  for (const Place& place : by_kind) Print(place, calls, kAnswerMs);
  for (const Place* place : {&in_answer, &in_handler, &in_init, &in_ready, &in_plugins_answer}) {
    Print(*place, calls, kAnswerMs);
  }
  Print(in_lost, 1, kAnswerMs);
  PrintFigure("stop.syncsend_from_callbacks.log_lines", static_cast<double>(in_time), "calls",
              Bound::kAtLeast, static_cast<double>(calls));
  Print(in_log_sink, calls, kAnswerMs);
  Print(in_all_threads, kMoreThanThreads, kShortTimeOut + kAnswerMs);
  const auto in_vain = static_cast<double>(in_all_threads.calls - in_all_threads.answered);
  if (patient) {
    PrintFigure("stop.syncsend_from_callbacks.all_threads.in_vain", in_vain, "calls");
  } else {
    PrintFigure("stop.syncsend_from_callbacks.all_threads.in_vain", in_vain, "calls", Bound::kAtLeast, 1);
  }
  Print(afterwards, 1, kAnswerMs);
  return AllKept() ? 0 : 1;
}

}  // namespace
}  // namespace trust

int main(int argc, char** argv) {
  return trust::Main(argc, argv);
}
