#include "Commands.h"

#include <chrono>
#include <cstdint>
#include <sstream>

namespace host {

using namespace std::chrono_literals;
using TolmLPCFrame::LPCData;

namespace {

constexpr int kCallTimeOutMs = 30000;

LPCData Message(std::int32_t type, const std::string& url, const std::string& body) {
  LPCData message;
  message.msg_type = type;
  message.url = url;
  message.body = body;
  return message;
}

std::string Describe(const TolmLPCFrame::FrameCallBackData& event) {
  const LPCData& data = event.lpc_data;
  switch (event.LpcMsgType) {
    case TolmLPCFrame::kLpcMsgPluginConnected:
      return "plugin " + data.src_id + ": connected";
    case TolmLPCFrame::kLpcMsgPluginDisconnected:
      return "plugin " + data.src_id + ": disconnected";
    case TolmLPCFrame::kLpcMsgPluginInited:
      return "plugin " + data.src_id + ": initialised";
    case TolmLPCFrame::kLpcMsgPluginUninited:
      return "plugin " + data.src_id + ": uninitialised";
    case TolmLPCFrame::kLpcMsgPush:
      return "push from " + data.src_id + " under " + data.push_msg_tag + ": " + data.body;
    default:
      break;
  }
  switch (data.msg_type) {
    case TolmLPCFrame::kMsgTypeRequest:
      return "request from " + data.src_id + ": " + data.url + ": " + data.body;
    case TolmLPCFrame::kMsgTypeReply:
      return "reply from " + data.src_id + ": " + data.body;
    default:
      return "notification from " + data.src_id + ": " + data.url + ": " + data.body;
  }
}

}  // namespace

bool Commands::Callback(const TolmLPCFrame::FrameCallBackData& event, void* user) {
  static_cast<Console*>(user)->Print(Describe(event));
  const LPCData& data = event.lpc_data;
  if (event.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData || data.msg_type != TolmLPCFrame::kMsgTypeRequest) {
    return true;
  }
  LPCData answer = Message(TolmLPCFrame::kMsgTypeReply, {}, data.body);
  answer.dst_id = data.src_id;
  answer.msg_id = data.msg_id;
  std::uint64_t unused = 0;
  TolmLPCFrame::AsyncSend(unused, answer);
  return true;
}

bool Commands::Run(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  words >> verb;
  if (verb == "announce") {
    std::string cmdline;
    std::getline(words >> std::ws, cmdline);
    TolmLPCFrame::TolmLPCFrameNotifyStartPlugins(cmdline);
    console_.Print("announced");
    return true;
  }
  std::string name;
  std::string body;
  words >> name;
  std::getline(words >> std::ws, body);
  if (verb == "stop") return false;
  if (verb.empty()) return true;
  if (verb == "call" && !name.empty()) {
    Call(name, body);
  } else if (verb == "notify" && !name.empty()) {
    std::uint64_t unused = 0;
    const bool sent = TolmLPCFrame::AsyncSend(unused, Message(TolmLPCFrame::kMsgTypeNotify, name, body));
    console_.Print(sent ? "notified" : "not sent, error " + std::to_string(TolmLPCFrame::GetLPCLastError()));
  } else if (verb == "start" && !name.empty()) {
    TolmLPCFrame::TolmLPCFrameStartPlugin(name);
  } else if (verb == "who" && !name.empty()) {
    int time_out = 0;
    console_.Print(TolmLPCFrame::IsPluginURL(time_out, name)
                       ? "a plugin serves " + name + ", time-out " + std::to_string(time_out) + " ms"
                       : "no plugin serves " + name);
  } else {
    console_.Print(std::string("one of:\n") + kHelp);
  }
  return true;
}

void Commands::Call(const std::string& url, const std::string& body) {
  callers_.remove_if([](const auto& caller) { return caller.wait_for(0s) == std::future_status::ready; });
  callers_.push_back(std::async(std::launch::async, [this, number = ++calls_, url, body] {
    const auto began = std::chrono::steady_clock::now();
    LPCData answer;
    const bool came =
        TolmLPCFrame::SyncSend(answer, Message(TolmLPCFrame::kMsgTypeRequest, url, body), kCallTimeOutMs);
    const int error = came ? 0 : TolmLPCFrame::GetLPCLastError();
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
    const std::string before = "call " + std::to_string(number) + ": ";
    const std::string behind = " (" + std::to_string(took.count()) + " ms)";
    console_.Print(came ? before + "answer from " + answer.src_id + ": " + answer.body + behind
                        : before + "no answer, error " + std::to_string(error) + behind);
  }));
}

}  // namespace host
