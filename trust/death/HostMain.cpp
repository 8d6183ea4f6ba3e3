// The host of these runs: does what is typed, and prints what its driver waits for.
//
//   death_host --tally FILE [--show-events] PLUGIN...
//
//   load N       N threads make calls from now on
//   call URL     calls it and prints "call N: answer ..." or "call N: code ..."
//   start ID     asks for that plugin
//   serves URL   prints whether a plugin does
//   stop         stops the frame and ends
//
// The plugins are announced when the first guard is there. A request for "/host/hold" is answered when the
// file that it names is there.

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "HostEvents.h"
#include "HostLoad.h"
#include "Tally.h"
#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "support/System.h"

namespace trust::death {
namespace {

using TolmLPCFrame::FrameCallBackData;
using TolmLPCFrame::LPCData;

constexpr int kCallTimeOutMs = 20000;

void Print(const std::string& line) {
  const std::string whole = line + "\n";
  std::fwrite(whole.data(), 1, whole.size(), stdout);
  std::fflush(stdout);
}

class Host {
 public:
  Host(Tally& tally, std::vector<std::string> plugins, bool shows_events)
      : plugins_(plugins),
        shows_events_(shows_events),
        events_(tally, plugins),
        load_(tally, events_, plugins) {}

  int Run() {
    TolmLPCFrame::SetLogSink(&Host::OnLog, this);
    TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
    TolmLPCFrame::RegisterLpcMsgCallback(&Host::OnMessage, this);
    TolmLPCFrame::PlatformInfo info;
    for (const std::string& id : plugins_) info.plugin_map[id].plugin_id = id;
    info.frame_full_path = tolm::test::ThisProgram().string();
    info.frame_type = 1;
    if (TolmLPCFrame::TolmLPCFrameInit("host", info) != TolmLPCFrame::kFrameOk) {
      Print("the frame does not start");
      return 1;
    }
    Print("the frame listens");
    auto announced = std::async(std::launch::async, [this] {
      guard_came_.get_future().wait();
      if (is_stopping_) return;
      TolmLPCFrame::TolmLPCFrameNotifyStartPlugins("--endpoint host");
      Print("announced");
    });
    for (std::string line; std::getline(std::cin, line) && line != "stop";) Do(line);
    is_stopping_ = true;
    if (!guard_is_there_.exchange(true)) guard_came_.set_value();
    announced.wait();
    load_.Join();
    const int result = TolmLPCFrame::TolmLPCFrameUnInit();
    calls_.clear();  // waits for them
    load_.OnStopped();
    Print("the frame has stopped");
    return result == TolmLPCFrame::kFrameOk ? 0 : 1;
  }

 private:
  void Do(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string argument;
    words >> verb >> argument;
    if (verb == "load") load_.Start(std::stoi(argument));
    if (verb == "start") TolmLPCFrame::TolmLPCFrameStartPlugin(argument);
    if (verb == "serves") {
      int time_out = 0;
      Print(argument + (TolmLPCFrame::IsPluginURL(time_out, argument) ? " is served" : " is not served"));
    }
    if (verb == "call") {
      calls_.push_back(std::async(std::launch::async, [number = calls_.size() + 1, argument] {
        LPCData request;
        request.url = argument;
        LPCData answer;
        const bool came = TolmLPCFrame::SyncSend(answer, request, kCallTimeOutMs);
        const std::string before = "call " + std::to_string(number) + ": ";
        Print(came ? before + "answer of " + std::to_string(answer.body.size()) + " bytes"
                   : before + "code " + std::to_string(TolmLPCFrame::GetLPCLastError()));
      }));
    }
  }

  static void OnLog(int, const char*, const char* text, void* user) {
    Host& host = *static_cast<Host*>(user);
    if (std::string_view(text).find("Get client info") == std::string_view::npos) return;
    if (!host.guard_is_there_.exchange(true)) host.guard_came_.set_value();
    Print("a guard is there");
  }

  static bool OnMessage(const FrameCallBackData& event, void* user) {
    static_cast<Host*>(user)->Handle(event);
    return true;
  }

  void Handle(const FrameCallBackData& event) {
    const LPCData& data = event.lpc_data;
    if (event.LpcMsgType == TolmLPCFrame::kLpcMsgPush) return;
    if (event.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData) {
      events_.On(event.LpcMsgType, data.src_id);
      static constexpr const char* kNames[] = {"connected", "disconnected", "initialised", "uninitialised"};
      if (shows_events_) {
        Print("plugin " + data.src_id + ": " +
              kNames[event.LpcMsgType - TolmLPCFrame::kLpcMsgPluginConnected]);
      }
      return;
    }
    if (data.msg_type == TolmLPCFrame::kMsgTypeReply) load_.OnAnswer(data.msg_id);
    if (data.msg_type != TolmLPCFrame::kMsgTypeRequest) return;
    if (data.url == "/host/hold") {
      Print("holding a request of " + data.src_id);
      while (!std::filesystem::exists(data.body)) tolm::test::Nap();
    }
    LPCData reply;
    reply.msg_type = TolmLPCFrame::kMsgTypeReply;
    reply.msg_id = data.msg_id;
    reply.dst_id = data.src_id;
    reply.body = data.body;
    std::uint64_t unused = 0;
    const bool sent = TolmLPCFrame::AsyncSend(unused, reply);
    if (data.url == "/host/hold") {
      Print(sent ? "the held request was answered"
                 : "the held request was not answered, code " +
                       std::to_string(TolmLPCFrame::GetLPCLastError()));
    }
  }

  const std::vector<std::string> plugins_;
  const bool shows_events_;
  HostEvents events_;
  HostLoad load_;
  std::atomic<bool> guard_is_there_{false};
  std::atomic<bool> is_stopping_{false};
  std::promise<void> guard_came_;
  std::vector<std::future<void>> calls_;
};

}  // namespace
}  // namespace trust::death

int main(int argc, char** argv) {
  std::vector<std::string> plugins;
  std::string tally;
  bool shows_events = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--tally" && i + 1 < argc) {
      tally = argv[++i];
    } else if (word == "--show-events") {
      shows_events = true;
    } else {
      plugins.push_back(word);
    }
  }
  // Its callbacks may run until the process ends.
  static trust::death::Host& host =
      *new trust::death::Host(trust::death::OpenTally(tally), std::move(plugins), shows_events);
  return host.Run();
}
