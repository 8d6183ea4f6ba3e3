#include "HostEvents.h"

#include <algorithm>
#include <string_view>

namespace tour {
namespace {

using TolmLPCFrame::FrameCallBackData;
using TolmLPCFrame::LPCData;

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string InWords(const LPCData& message) {
  switch (message.msg_type) {
    case TolmLPCFrame::kMsgTypeRequest:
      return message.src_id + " asks the host: " + message.method + " " + message.url;
    case TolmLPCFrame::kMsgTypeReply:
      return message.src_id + " answers the host: " + Quoted(message.body);
    default:
      return message.src_id + " notifies the host: " + message.url + " " + Quoted(message.body);
  }
}

std::string InWords(const FrameCallBackData& data) {
  const std::string& id = data.lpc_data.src_id;
  switch (data.LpcMsgType) {
    case TolmLPCFrame::kLpcMsgPluginConnected:
      return id + " is connected";
    case TolmLPCFrame::kLpcMsgPluginDisconnected:
      return id + " is disconnected";
    case TolmLPCFrame::kLpcMsgPluginInited:
      return id + " has finished its initialisation";
    case TolmLPCFrame::kLpcMsgPluginUninited:
      return id + " is not initialised any more";
    case TolmLPCFrame::kLpcMsgPush:
      return id + " pushes " + Quoted(data.lpc_data.push_msg_tag) + ": " + Quoted(data.lpc_data.body);
    default:
      return InWords(data.lpc_data);
  }
}

/// What stands between two texts of a log line; empty when they are not there.
std::string Between(std::string_view line, std::string_view before, std::string_view behind) {
  const std::size_t begin = line.find(before);
  if (begin == std::string_view::npos) return {};
  line.remove_prefix(begin + before.size());
  return std::string(line.substr(0, line.find(behind)));
}

}  // namespace

bool HostEvents::Callback(const FrameCallBackData& data, void* user) {
  static_cast<HostEvents*>(user)->Add(InWords(data));

  const LPCData& message = data.lpc_data;
  const bool asked =
      data.LpcMsgType == TolmLPCFrame::kLpcMsgLpcData && message.msg_type == TolmLPCFrame::kMsgTypeRequest;
  if (asked) {
    // The answer goes to whoever asked, under the number of the question.
    LPCData answer;
    answer.msg_type = TolmLPCFrame::kMsgTypeReply;
    answer.dst_id = message.src_id;
    answer.msg_id = message.msg_id;
    answer.body = message.url == "/host/price" ? "12 coins" : "the host does not know " + message.url;
    std::uint64_t unused = 0;
    TolmLPCFrame::AsyncSend(unused, answer);
  }
  return true;
}

// Some of what plugins report is told to nobody but the log.
void HostEvents::LogSink(int /*level*/, const char* tag, const char* text, void* user) {
  auto& events = *static_cast<HostEvents*>(user);
  const std::string_view line(text);
  if (const auto url = Between(line, "SupportUrlList = ", ","); !url.empty()) {
    events.Add(Between(line, "plugin_id = ", "[") + " registers " + url + ", time-out " +
               Between(line, "Timeout = ", ",") + " ms");
  } else if (line.find("uninit suceessfully") != std::string_view::npos &&
             std::string_view(tag) == "LPCFrameInfo") {
    events.Add(Between(line, "plugin_id[", "]") + " has uninitialised");
  } else if (const auto agent = Between(line, "Create Agent processID ", " "); !agent.empty()) {
    events.Add("the agent starts as process " + agent);
  } else if (line.find("Get client info:") != std::string_view::npos) {
    events.Add("a guard has connected");
  }
}

void HostEvents::Add(const std::string& text) {
  const os::MutexLock lock(mutex_);
  events_.push_back({text, Clock::now()});
  changed_.notify_all();
}

void HostEvents::Interrupt() {
  const os::MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notify_all();
}

void HostEvents::Resume() {
  const os::MutexLock lock(mutex_);
  interrupted_ = false;
}

bool HostEvents::IsInterrupted() const {
  const os::MutexLock lock(mutex_);
  return interrupted_;
}

std::optional<HostEvents::Event> HostEvents::Take(const std::string& text, std::chrono::milliseconds limit) {
  os::UniqueLock lock(mutex_);
  auto found = events_.end();
  changed_.wait_for(lock, limit, [&]() TOLM_REQUIRES(mutex_) {
    found =
        std::find_if(events_.begin(), events_.end(), [&](const Event& event) { return event.text == text; });
    return found != events_.end() || interrupted_;
  });
  if (found == events_.end()) return std::nullopt;
  const Event event = *found;
  events_.erase(found);
  return event;
}

std::optional<HostEvents::Event> HostEvents::TakeNext() {
  os::UniqueLock lock(mutex_);
  changed_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return !events_.empty() || interrupted_; });
  if (events_.empty()) return std::nullopt;
  const Event event = events_.front();
  events_.erase(events_.begin());
  return event;
}

void HostEvents::ForgetAll() {
  const os::MutexLock lock(mutex_);
  events_.clear();
}

std::vector<HostEvents::Event> HostEvents::Rest() const {
  const os::MutexLock lock(mutex_);
  return events_;
}

}  // namespace tour
