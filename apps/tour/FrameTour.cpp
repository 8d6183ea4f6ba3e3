// A tour of the whole system: this program is the host, the frame in it starts the agent, the agent the
// guard, and the guard two plugins. "→" is what the host does, "✓" is what was observed thereupon, and
// nothing else is shown.

#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "Entry.h"
#include "HostCalls.h"
#include "HostEvents.h"
#include "Narration.h"
#include "PluginLog.h"
#include "Processes.h"
#include "Stage.h"
#include "System.h"
#include "os/Utf8Path.h"

namespace tour {
namespace {

using namespace std::chrono_literals;
using TolmLPCFrame::LPCData;

constexpr auto kPatience = 20s;
constexpr int kCallTimeOutMs = 5000;
constexpr int kLongCallTimeOutMs = 60000;

constexpr char kEndpoint[] = "tour";
constexpr char kGuardProgram[] = "TolmGuard.exe";

constexpr int kExitFailed = 1;
constexpr int kExitInterrupted = 130;

/// What each plugin is expected to register, as the events say it.
const std::map<std::string, std::vector<std::string>> kUrls = {
    {"kitchen",
     {"/kitchen/dish/<id>, time-out 5000 ms", "/kitchen/bell, time-out 5000 ms",
      "/kitchen/roast, time-out 90000 ms"}},
    {"waiter",
     {"/waiter/order/<id>, time-out 5000 ms", "/waiter/bill, time-out 5000 ms",
      "/waiter/door, time-out 5000 ms"}}};

struct Interrupted {};

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string InHex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, " %02x", static_cast<unsigned char>(byte));
    hex += digits;
  }
  return hex;
}

}  // namespace

class Tour {
 public:
  Tour(HostEvents& events, const std::filesystem::path& folder, bool stay)
      : events_(events), stage_(folder, kEndpoint), stay_(stay) {
    for (const char* const id : {"kitchen", "waiter"}) logs_.try_emplace(id, stage_.LogOf(id));
  }
  ~Tour() {
    if (running_) TolmLPCFrame::TolmLPCFrameUnInit();
  }

  int Run() {
    const auto began = Clock::now();
    say_.Title("TolmLPCFrame: a host, its guard and two plugins at work");
    say_.Note("All of this happens now, in five processes: → is what the host does, ✓ what was observed.");
    say_.Note("The host's folder is " + stage_.folder().string());
    try {
      StartFrame();
      StartPlugins();
      CallPlugin();
      CallThroughPlugin();
      AnswerPlugin();
      Notify();
      ReceivePush();
      KillPluginInCall();
      SeePluginComeBack();
      KillGuard();
      if (stay_) Stay();
      Stop();
      SeeNothingLeft();
    } catch (const Interrupted&) {
      say_.Title("Interrupted.");
      return kExitInterrupted;
    } catch (const std::exception& failure) {
      say_.Missing(failure.what());
      for (const auto& event : events_.Rest()) say_.Note("seen besides: " + event.text);
      return kExitFailed;
    }
    say_.Title("Everything went as it should" +
               (stay_ ? "." : ", in " + InWords(Clock::now() - began) + "."));
    say_.Note("The sources of what you saw are in apps/tour; examples has the smallest programs.");
    return 0;
  }

 private:
  // --- the steps ---

  void StartFrame() {
    say_.Step(
        "The host starts the frame",
        "The frame is a shared library in the host's own process. With frame_type 1 it starts the agent; the "
        "agent starts the guard, and the guard connects to the frame.");
    const std::string library = LibraryOf(reinterpret_cast<void*>(&TolmLPCFrame::TolmLPCFrameInit));
    if (!library.empty()) say_.Seen("process " + std::to_string(OwnProcessId()) + " has loaded " + library);
    TolmLPCFrame::PlatformInfo info;
    for (const char* const id : {"kitchen", "waiter", "guest"}) info.plugin_map[id].plugin_id = id;
    info.plugin_map["guest"].not_verified = true;  // whoever comes by hand: nothing for the guard to start
    info.frame_full_path = stage_.Program().string();
    info.frame_type = 1;
    TolmLPCFrame::RegisterLpcMsgCallback(&HostEvents::Callback, &events_);
    TolmLPCFrame::SetLogSink(&HostEvents::LogSink, &events_);
    TolmLPCFrame::RegisterUrl({"/host/price"});
    const int result = TolmLPCFrame::TolmLPCFrameInit(kEndpoint, info);
    if (result != TolmLPCFrame::kFrameOk) {
      throw std::runtime_error("TolmLPCFrameInit gave " + std::to_string(result) + "; its log is above");
    }
    running_ = true;
    say_.Seen("the frame waits for plugins under the name " + Quoted(kEndpoint));
    Expect("the agent starts as process " + std::to_string(ExpectProcess("TolmAgent_Exe64.exe")));
    ExpectGuard();
    if (!stage_.AgentHasEvent()) throw std::runtime_error("the agent cannot be asked to end");
  }

  void StartPlugins() {
    say_.Step(
        "The guard starts two plugins",
        "Plugins are programs of their own, each with a manifest. They connect to the frame's endpoint and "
        "register their URLs.");
    say_.Does("TolmLPCFrameNotifyStartPlugins(\"--endpoint " + std::string(kEndpoint) + "\")");
    TolmLPCFrame::TolmLPCFrameNotifyStartPlugins("--endpoint " + std::string(kEndpoint));
    ExpectPlugin("kitchen");
    ExpectPlugin("waiter");
    ExpectUrl("/kitchen/dish/7");
    std::vector<std::string> headers;
    TolmLPCFrame::GetHttpHeaders(headers);
    if (headers.empty()) throw std::runtime_error("no plugin has declared a header");
    say_.Seen("the frame says that a plugin uses the HTTP header " + headers.front());
  }

  void CallPlugin() {
    say_.Step("The host calls a plugin",
              "It names a URL and not a plugin. Headers and parts go beside the body.");
    LPCData request = Request("POST", "/kitchen/dish/7");
    request.http_headers["X-Table"] = "4";
    auto& wish = request.http_mime.emplace_back();
    wish.name = "wish";
    wish.body_data = "no onions";
    say_.Does("POST /kitchen/dish/7, header X-Table: 4, part \"wish\": no onions");
    const LPCData answer = ExpectAnswer(request, "kitchen", "dish 7 for table 4, no onions");
    ExpectCookedBy(answer, "kitchen");
    if (answer.http_mime.size() != 1) throw std::runtime_error("the answer has no part");
    const auto& photo = answer.http_mime.front();
    say_.Seen("  with the part " + Quoted(photo.name) + ", " + photo.content_type + ", bytes" +
              InHex(photo.body_data));
  }

  void CallThroughPlugin() {
    say_.Step("A plugin calls another plugin",
              "The waiter asks for a URL of the kitchen's; the frame finds who serves it.");
    LPCData request = Request("POST", "/waiter/order/9");
    request.http_headers["X-Table"] = "5";
    say_.Does("POST /waiter/order/9, header X-Table: 5");
    ExpectCookedBy(ExpectAnswer(request, "waiter", "here you are: dish 9 for table 5"), "kitchen");
  }

  void AnswerPlugin() {
    say_.Step("A plugin calls the host",
              "No plugin serves the URL that the waiter asks for, so the host is asked.");
    say_.Does("GET /waiter/bill");
    auto call = std::async(std::launch::async, &Call, Request("GET", "/waiter/bill"), kCallTimeOutMs);
    Expect("waiter asks the host: GET /host/price");
    ExpectAnswer(call.get(), "waiter", "that makes 12 coins");
  }

  void Notify() {
    say_.Step("A notification", "It is sent and not answered; the host does not wait.");
    LPCData bell = Request("POST", "/kitchen/bell");
    bell.msg_type = TolmLPCFrame::kMsgTypeNotify;
    bell.body = "table 5 is hungry";
    Send(bell);
    ExpectPrinted("kitchen", "heard the bell: table 5 is hungry");
  }

  void ReceivePush() {
    say_.Step("A push", "A plugin tells the host something under a tag, without a URL.");
    LPCData door = Request("POST", "/waiter/door");
    door.msg_type = TolmLPCFrame::kMsgTypeNotify;
    door.body = "four people";
    Send(door);
    Expect("waiter pushes \"guests\": \"four people\"");
  }

  void KillPluginInCall() {
    say_.Step("A plugin dies in the middle of a call",
              "The host would wait for a minute. It learns of the death at once instead.");
    say_.Does("GET /kitchen/roast, waiting for up to 60 s");
    auto call = std::async(std::launch::async, &Call, Request("GET", "/kitchen/roast"), kLongCallTimeOutMs);
    ExpectPrinted("kitchen", "the roast is in the oven");
    const auto killed = Kill(ExpectProcess(Stage::PluginProgram("kitchen")));
    if (call.wait_for(kPatience) != std::future_status::ready) {
      throw std::runtime_error("the call still waits for its answer");
    }
    const Outcome outcome = call.get();
    if (outcome.answered) throw std::runtime_error("the call was answered: " + Quoted(outcome.answer.body));
    say_.Seen("the call failed " + InWords(outcome.ended - killed) + " after that: " +
              ReasonInWords(outcome.error) + " (GetLPCLastError: " + std::to_string(outcome.error) + ")");
    Expect("kitchen is disconnected");
    killed_ = killed;
  }

  void SeePluginComeBack() {
    say_.Step("It comes back",
              "The guard tells the frame of the death and starts the plugin again. It registers again, and "
              "its URLs "
              "work as before.");
    Expect("kitchen is not initialised any more");
    ExpectPlugin("kitchen");
    say_.Seen("all of that took " + InWords(Clock::now() - killed_));
    ExpectCook("6", "8");
  }

  void KillGuard() {
    say_.Step("The guard dies",
              "Its plugins go with it, so that nobody runs unwatched. The agent starts another guard, which "
              "is told by "
              "the frame what to start.");
    const ProcessId guard = ExpectProcess(kGuardProgram);
    Kill(guard);
    Expect("kitchen is disconnected");
    Expect("waiter is disconnected");
    ExpectGuard();
    ExpectPlugin("kitchen");
    ExpectPlugin("waiter");
    ExpectCook("3", "10");
  }

  void Stay() {
    say_.Step("The frame stays up",
              "Until Ctrl-C. You may join in from another terminal, for instance with:");
    say_.Note("  " + WithVariable("XDG_RUNTIME_DIR", stage_.RuntimeFolder().string(), TOLM_EXAMPLE_PLUGIN,
                                  "--endpoint " + std::string(kEndpoint) + " --id guest"));
    events_.ForgetAll();  // what the steps above did not care about
    while (const auto event = events_.TakeNext()) say_.Seen(event->text);
    events_.Resume();  // what remains is worth waiting for
  }

  void Stop() {
    say_.Step("The orderly stop",
              "The frame tells the guard to restart nobody, asks every plugin to clean up, waits for them, "
              "and ends "
              "the agent with its guard.");
    say_.Does("TolmLPCFrameUnInit");
    const auto began = Clock::now();
    running_ = false;
    const int result = TolmLPCFrame::TolmLPCFrameUnInit();
    const auto took = Clock::now() - began;
    ExpectPrinted("kitchen", "asked to uninitialise: the stove is off");
    Expect("kitchen has uninitialised");
    ExpectPrinted("waiter", "asked to uninitialise: the tables are wiped");
    Expect("waiter has uninitialised");
    if (result != TolmLPCFrame::kFrameOk) {
      throw std::runtime_error("TolmLPCFrameUnInit gave " + std::to_string(result));
    }
    say_.Seen("the frame has stopped after " + InWords(took));
  }

  void SeeNothingLeft() {
    say_.Step("What is left", "Processes below the host's folder; endpoints, events and locks.");
    std::string left;
    const auto collect = [&] {
      left.clear();
      for (const auto& [id, program] : stage_.Processes()) left += " " + program + " " + std::to_string(id);
      for (const std::string& object : stage_.RuntimeObjects()) left += " " + object;
      return left.empty();
    };
    if (!Await(collect)) throw std::runtime_error("this is left:" + left);
    say_.Seen("no process but the host, no endpoint, no event, no lock; the folder goes now");
  }

  // --- what they are made of ---

  /// Polls what nobody tells of.
  template <typename Condition>
  bool Await(Condition&& condition) {
    const auto deadline = Clock::now() + kPatience;
    while (!condition()) {
      if (events_.IsInterrupted()) throw Interrupted();
      if (Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  ProcessId ExpectProcess(const std::string& program) {
    ProcessId id = 0;
    if (!Await([&] { return (id = stage_.ProcessOf(program)) != 0; })) {
      throw std::runtime_error("not one process runs " + program);
    }
    return id;
  }

  void ExpectGuard() {
    Expect("a guard has connected");
    say_.Seen("  it is process " + std::to_string(ExpectProcess(kGuardProgram)));
  }

  void ExpectPlugin(const std::string& id) {
    Expect(id + " is connected");
    for (const std::string& url : kUrls.at(id)) Expect(id + " registers " + url);
    Expect(id + " has finished its initialisation");
  }

  /// What a plugin prints ends up in its log, which the guard keeps.
  void ExpectPrinted(const std::string& id, const std::string& text) {
    if (!logs_.at(id).WaitFor(text, kPatience)) {
      throw std::runtime_error(id + " has not printed " + Quoted(text));
    }
    say_.Seen(id + " prints: " + text);
  }

  Clock::time_point Kill(ProcessId process) {
    say_.Does(KillCommand(process));
    const auto now = Clock::now();
    KillProcess(process);
    return now;
  }

  void ExpectCook(const std::string& table, const std::string& dish) {
    LPCData request = Request("POST", "/kitchen/dish/" + dish);
    request.http_headers["X-Table"] = table;
    ExpectCookedBy(ExpectAnswer(request, "kitchen", "dish " + dish + " for table " + table), "kitchen");
  }

  void Send(const LPCData& notification) {
    say_.Does("notification " + notification.url + ": " + Quoted(notification.body));
    std::uint64_t unused = 0;
    if (!TolmLPCFrame::AsyncSend(unused, notification)) {
      throw std::runtime_error("it was not sent: " + ReasonInWords(TolmLPCFrame::GetLPCLastError()));
    }
  }

  /// Waits for an event and shows it.
  void Expect(const std::string& text) {
    const auto event = events_.Take(text, kPatience);
    if (!event && events_.IsInterrupted()) throw Interrupted();
    if (!event) throw std::runtime_error("not seen within " + InWords(kPatience) + ": " + text);
    say_.Seen(text);
  }

  void ExpectUrl(const std::string& url) {
    int time_out = 0;
    if (!TolmLPCFrame::IsPluginURL(time_out, url)) throw std::runtime_error("no plugin serves " + url);
    say_.Seen("the frame says that " + url + " is for a plugin, and that it may take " +
              std::to_string(time_out) + " ms");
  }

  LPCData ExpectAnswer(const LPCData& request, const std::string& from, const std::string& body) {
    return ExpectAnswer(Call(request, kCallTimeOutMs), from, body);
  }

  LPCData ExpectAnswer(const Outcome& outcome, const std::string& from, const std::string& body) {
    if (!outcome.answered) throw std::runtime_error("no answer: " + ReasonInWords(outcome.error));
    const LPCData& answer = outcome.answer;
    const std::string got = answer.src_id + " answers " + Quoted(answer.body);
    if (answer.src_id != from || answer.body != body) {
      throw std::runtime_error(got + ", but " + from + " was to answer " + Quoted(body));
    }
    say_.Seen(got + ", " + InWords(outcome.took) + " after the call");
    return answer;
  }

  /// Of the processes themselves, only the right one can have written this header.
  void ExpectCookedBy(const LPCData& answer, const std::string& id) {
    const auto header = answer.http_headers.find("X-Cooked-By");
    const std::string cook = header == answer.http_headers.end() ? "nobody" : header->second;
    const std::string expected = "process " + std::to_string(ExpectProcess(Stage::PluginProgram(id)));
    if (cook != expected) throw std::runtime_error("cooked by " + cook + " and not by " + expected);
    say_.Seen("  with the header X-Cooked-By: " + cook + ", which is the " + id);
  }

  HostEvents& events_;
  const Stage stage_;
  const bool stay_;
  std::map<std::string, PluginLog> logs_;
  Narration say_;
  bool running_ = false;
  Clock::time_point killed_;
};

}  // namespace tour

int main(int argc, char** argv) {
  bool stay = false;
  int log_level = TolmLPCFrame::kLogError;
  std::string folder;
  CLI::App options(
      "Shows a plugin frame at work: a host, its guard, two plugins, and what they say to each other.");
  options.add_option("--folder", folder, "The host's folder that was laid out for this tour")->group("");
  options.add_flag("--stay", stay, "Keep running after the tour, until Ctrl-C");
  options.add_option("--log", log_level, "Show the frame's log on stderr, from this level on")
      ->transform(CLI::CheckedTransformer(std::map<std::string, int>{{"trace", TolmLPCFrame::kLogTrace},
                                                                     {"info", TolmLPCFrame::kLogInformation},
                                                                     {"warning", TolmLPCFrame::kLogWarning},
                                                                     {"error", TolmLPCFrame::kLogError}}))
      ->option_text("trace|info|warning|error");
  CLI11_PARSE(options, argc, argv);
  try {
    if (folder.empty()) return tour::Stage::BuildAndEnter({argv + 1, argv + argc});
    // Lasts as long as the process: the thread that waits for signals knows it.
    static tour::HostEvents& events = *new tour::HostEvents;
    tour::OnInterrupt(folder, [] { events.Interrupt(); });
    tour::PrintInUtf8();
    TolmLPCFrame::SetLogStderrLevel(log_level);
    return tour::Tour(events, os::Utf8Path(folder), stay).Run();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "frame_tour: %s\n", failure.what());
    return tour::kExitFailed;
  }
}
