// A tour of the frame: this program is the host, two more are its plugins. "→" is what the host does,
// "✓" is what was observed thereupon, and nothing else is shown.

#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>
#include <dlfcn.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "HostEvents.h"
#include "Narration.h"
#include "PluginProcess.h"

namespace tour {
namespace {

using namespace std::chrono_literals;
using TolmLPCFrame::LPCData;

constexpr auto kPatience = 10s;
constexpr int kCallTimeOutMs = 5000;
constexpr int kLongCallTimeOutMs = 60000;

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

/// The transport's reasons that a host meets in calls; docs/host-guide.md has them all.
std::string ReasonInWords(int error) {
  switch (error) {
    case 0:
      return "no plugin that is ready serves this URL";
    case 6:
      return "the plugin is not connected";
    case 7:
      return "the connection ended before the answer came";
    case 8:
      return "no answer in time";
    default:
      return "error of the transport";
  }
}

struct Outcome {
  bool answered = false;
  LPCData answer;
  int error = 0;
  Clock::time_point ended;
  Clock::duration took{};
};

Outcome Call(const LPCData& request, int time_out_ms) {
  Outcome outcome;
  const auto began = Clock::now();
  outcome.answered = TolmLPCFrame::SyncSend(outcome.answer, request, time_out_ms);
  outcome.ended = Clock::now();
  outcome.took = outcome.ended - began;
  if (!outcome.answered) outcome.error = TolmLPCFrame::GetLPCLastError();  // of this thread
  return outcome;
}

LPCData Request(const std::string& method, const std::string& url) {
  LPCData request;
  request.method = method;
  request.url = url;
  return request;
}

}  // namespace

class Tour {
 public:
  Tour(HostEvents& events, bool stay) : events_(events), stay_(stay) {}
  ~Tour() {
    if (running_) TolmLPCFrame::TolmLPCFrameUnInit();
  }

  int Run() {
    const auto began = Clock::now();
    say_.Title("TolmLPCFrame: a host and two plugins at work");
    say_.Note("All of this happens now, in three processes: → is what the host does, ✓ what was observed.");
    try {
      StartFrame();
      StartPlugins();
      CallPlugin();
      CallThroughPlugin();
      AnswerPlugin();
      Notify();
      ReceivePush();
      KillPluginInCall();
      BringPluginBack();
      if (stay_) Stay();
      Stop();
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
    say_.Step("The host starts the frame", "The frame is a shared library in the host's own process.");
    Dl_info library{};
    if (::dladdr(reinterpret_cast<void*>(&TolmLPCFrame::TolmLPCFrameInit), &library) != 0) {
      say_.Seen("process " + std::to_string(::getpid()) + " has loaded " + library.dli_fname);
    }
    TolmLPCFrame::PlatformInfo info;
    for (const char* const id : {"kitchen", "waiter", "guest"}) info.plugin_map[id].plugin_id = id;
    info.frame_full_path = std::filesystem::read_symlink("/proc/self/exe");
    TolmLPCFrame::RegisterLpcMsgCallback(&HostEvents::Callback, &events_);
    TolmLPCFrame::SetLogSink(&HostEvents::LogSink, &events_);
    TolmLPCFrame::RegisterUrl({"/host/price"});
    const int result = TolmLPCFrame::TolmLPCFrameInit(endpoint_, info);
    if (result != TolmLPCFrame::kFrameOk) {
      throw std::runtime_error("TolmLPCFrameInit gave " + std::to_string(result) + "; its log is above");
    }
    running_ = true;
    say_.Seen("the frame waits for plugins under the name " + Quoted(endpoint_));
  }

  void StartPlugins() {
    say_.Step("Two plugins start",
              "Plugins are programs of their own. They connect to that name and register their URLs.");
    StartPlugin("kitchen");
    StartPlugin("waiter");
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
    Expect("kitchen prints: heard the bell: table 5 is hungry");
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
    Expect("kitchen prints: the roast is in the oven");
    PluginProcess& kitchen = *plugins_.at("kitchen");
    say_.Does("kill -9 " + std::to_string(kitchen.id()));
    const auto killed = Clock::now();
    kitchen.Kill();
    if (call.wait_for(kPatience) != std::future_status::ready) {
      throw std::runtime_error("the call still waits for its answer");
    }
    const Outcome outcome = call.get();
    if (outcome.answered) throw std::runtime_error("the call was answered: " + Quoted(outcome.answer.body));
    say_.Seen("the call failed " + InWords(outcome.ended - killed) + " after that: " +
              ReasonInWords(outcome.error) + " (GetLPCLastError: " + std::to_string(outcome.error) + ")");
    Expect("kitchen is disconnected");
    Expect("the process of kitchen has ended: killed by signal 9");
  }

  void BringPluginBack() {
    say_.Step("It comes back", "Started again, the plugin registers again, and its URLs work as before.");
    StartPlugin("kitchen");
    LPCData request = Request("POST", "/kitchen/dish/8");
    request.http_headers["X-Table"] = "6";
    say_.Does("POST /kitchen/dish/8, header X-Table: 6");
    ExpectCookedBy(ExpectAnswer(request, "kitchen", "dish 8 for table 6"), "kitchen");
  }

  void Stay() {
    say_.Step("The frame stays up",
              "Until Ctrl-C. You may join in from another terminal, for instance with:");
    say_.Note("  " + Program("example_clock_plugin") + " --endpoint " + endpoint_ + " --id guest");
    events_.ForgetAll();  // what the steps above did not care about
    while (const auto event = events_.TakeNext()) say_.Seen(event->text);
    events_.Resume();  // what remains is worth waiting for
  }

  void Stop() {
    say_.Step("The orderly stop", "The frame asks every plugin to clean up, waits for them, and closes.");
    say_.Does("TolmLPCFrameUnInit");
    const auto began = Clock::now();
    running_ = false;
    const int result = TolmLPCFrame::TolmLPCFrameUnInit();
    const auto took = Clock::now() - began;
    Expect("kitchen prints: asked to uninitialise: the stove is off");
    Expect("kitchen has uninitialised");
    Expect("the process of kitchen has ended: exit status 0");
    Expect("waiter prints: asked to uninitialise: the tables are wiped");
    Expect("waiter has uninitialised");
    Expect("the process of waiter has ended: exit status 0");
    if (result != TolmLPCFrame::kFrameOk) {
      throw std::runtime_error("TolmLPCFrameUnInit gave " + std::to_string(result));
    }
    say_.Seen("the frame has stopped after " + InWords(took));
  }

  // --- what they are made of ---

  static std::string Program(const std::string& name) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
  }

  void StartPlugin(const std::string& id) {
    plugins_[id].reset();  // the process of before
    const auto on_line = [this, id](const std::string& line) { events_.Add(id + " prints: " + line); };
    const auto on_end = [this, id](const std::string& how) {
      events_.Add("the process of " + id + " has ended: " + how);
    };
    const std::vector<std::string> arguments{"--endpoint", endpoint_};
    plugins_[id] = std::make_unique<PluginProcess>(Program("tour_" + id), arguments, on_line, on_end);
    say_.Does("tour_" + id + " --endpoint " + endpoint_ + ", which is process " +
              std::to_string(plugins_[id]->id()));
    Expect(id + " is connected");
    for (const std::string& url : kUrls.at(id)) Expect(id + " registers " + url);
    Expect(id + " has finished its initialisation");
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
    const std::string expected = "process " + std::to_string(plugins_.at(id)->id());
    if (cook != expected) throw std::runtime_error("cooked by " + cook + " and not by " + expected);
    say_.Seen("  with the header X-Cooked-By: " + cook + ", which is the " + id);
  }

  HostEvents& events_;
  const bool stay_;
  const std::string endpoint_ = "tour-" + std::to_string(::getpid());
  Narration say_;
  bool running_ = false;
  std::map<std::string, std::unique_ptr<PluginProcess>> plugins_;
};

namespace {

/// Ctrl-C and a polite kill end the tour in order: `events` is interrupted. Before other threads start.
void InterruptOnSignal(HostEvents& events) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals, &events] {
    for (int signal = 0; ::sigwait(&signals, &signal) == 0;) events.Interrupt();
  }).detach();
}

}  // namespace
}  // namespace tour

int main(int argc, char** argv) {
  bool stay = false;
  int log_level = TolmLPCFrame::kLogError;
  CLI::App options(
      "Shows a plugin frame at work: a host, two plugin processes, and what they say to each other.");
  options.add_flag("--stay", stay, "Keep running after the tour, until Ctrl-C");
  options.add_option("--log", log_level, "Show the frame's log on stderr, from this level on")
      ->transform(CLI::CheckedTransformer(std::map<std::string, int>{{"trace", TolmLPCFrame::kLogTrace},
                                                                     {"info", TolmLPCFrame::kLogInformation},
                                                                     {"warning", TolmLPCFrame::kLogWarning},
                                                                     {"error", TolmLPCFrame::kLogError}}))
      ->option_text("trace|info|warning|error");
  CLI11_PARSE(options, argc, argv);
  TolmLPCFrame::SetLogStderrLevel(log_level);

  // Lasts as long as the process: the thread that waits for signals knows it.
  static tour::HostEvents events;
  tour::InterruptOnSignal(events);
  return tour::Tour(events, stay).Run();
}
