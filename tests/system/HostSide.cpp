#include "HostSide.h"

#include <algorithm>

#include "support/TestLogs.h"

namespace tolm::test {

using TolmLPCFrame::LPCData;

HostSide::HostSide() {
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogInformation);
  TolmLPCFrame::SetLogSink(&HostSide::Log, this);
  // The library's log is another one than this program's.
  if (const auto file = TestLogFile("frame")) {
    TolmLPCFrame::SetLogFile(*file, kTestLogBytes, 1);
    TolmLPCFrame::SetLogLevel(1);
  }
}

HostSide::~HostSide() {
  TolmLPCFrame::SetLogSink(nullptr, nullptr);
}

int HostSide::Start(const std::string& endpoint, const std::vector<std::string>& plugins) {
  TolmLPCFrame::PlatformInfo info;
  for (const std::string& id : plugins) info.plugin_map[id].plugin_id = id;
  TolmLPCFrame::RegisterLpcMsgCallback(&HostSide::Callback, this);
  return TolmLPCFrame::TolmLPCFrameInit(endpoint, info);
}

void HostSide::KeepNoMessages() {
  const std::lock_guard lock(mutex_);
  keeping_messages_ = false;
}

std::vector<HostSide::Event> HostSide::Events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

bool HostSide::WaitForEvent(int type, const std::string& id, std::size_t count,
                            std::chrono::milliseconds limit) {
  return WaitFor([&](const Event& event) { return event.LpcMsgType == type && event.lpc_data.src_id == id; },
                 count, limit);
}

bool HostSide::WaitFor(const std::function<bool(const Event&)>& matches, std::size_t count,
                       std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] {
    return std::count_if(events_.begin(), events_.end(), matches) >= static_cast<std::ptrdiff_t>(count);
  });
}

std::size_t HostSide::CountOf(int type, const std::string& id) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(events_.begin(), events_.end(), [&](const Event& event) {
    return event.LpcMsgType == type && event.lpc_data.src_id == id;
  }));
}

bool HostSide::WaitForLog(const std::string& text, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] {
    return std::any_of(log_.begin(), log_.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
  });
}

std::string HostSide::LogText() const {
  const std::lock_guard lock(mutex_);
  std::string text;
  for (const std::string& line : log_) text += line + '\n';
  return text;
}

bool HostSide::Callback(const Event& event, void* user) {
  // By this a plugin confirms its registration; one that overtakes the registration reaches the host.
  if (event.lpc_data.url.starts_with("/tolm-plugin/registered/")) return true;
  auto& self = *static_cast<HostSide*>(user);
  {
    const std::lock_guard lock(self.mutex_);
    if (self.keeping_messages_ || event.LpcMsgType >= TolmLPCFrame::kLpcMsgPluginConnected) {
      self.events_.push_back(event);
    }
    self.changed_.notify_all();
  }
  if (self.hook_) self.hook_(event);
  return true;
}

void HostSide::Log(int level, const char* tag, const char* text, void* user) {
  auto& self = *static_cast<HostSide*>(user);
  const std::lock_guard lock(self.mutex_);
  self.log_.push_back(std::to_string(level) + ' ' + tag + ' ' + text);
  self.changed_.notify_all();
}

LPCData Request(const std::string& url, const std::string& body) {
  LPCData request;
  request.method = "POST";
  request.url = url;
  request.body = body;
  return request;
}

LPCData Notification(const std::string& url, const std::string& body) {
  LPCData notification = Request(url, body);
  notification.msg_type = TolmLPCFrame::kMsgTypeNotify;
  return notification;
}

Answer Call(const LPCData& request, std::chrono::milliseconds time_out) {
  Answer answer;
  const auto began = std::chrono::steady_clock::now();
  answer.came = TolmLPCFrame::SyncSend(answer.data, request, static_cast<int>(time_out.count()));
  answer.took = std::chrono::steady_clock::now() - began;
  if (!answer.came) answer.error = TolmLPCFrame::GetLPCLastError();
  return answer;
}

bool Send(const LPCData& message) {
  std::uint64_t unused = 0;
  return TolmLPCFrame::AsyncSend(unused, message);
}

}  // namespace tolm::test
