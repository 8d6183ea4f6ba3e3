#include "support/LiveFrame.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "TolmLPCServer/LpcServer.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "support/Input.h"
#include "support/OwnResources.h"

namespace fuzz {
namespace {

using TolmLPCFrame::FrameCallBackData;
using TolmLPCFrame::LPCData;

constexpr std::chrono::seconds kLong{10};
constexpr int kCallers = 2;
// What the pools of the frame and of the bystander keep at most, and what is there besides.
constexpr long kMostThreads = 3 * 30 + 10 + 2 * (8 + 2) + kCallers + 10;

LPCData Message(const std::string& url, const std::string& body) {
  LPCData message;
  message.msg_type = TolmLPCFrame::kMsgTypeRequest;
  message.url = url;
  message.body = body;
  return message;
}

/// All but pipes, through which the fuzzer talks to its symbolizer.
long OwnDescriptors() {
  namespace fs = std::filesystem;
  const fs::directory_iterator entries("/proc/self/fd");
  return std::count_if(begin(entries), end(entries), [](const fs::directory_entry& entry) {
    std::error_code gone;
    return !fs::read_symlink(entry.path(), gone).string().starts_with("pipe:");
  });
}

}  // namespace

LiveFrame::LiveFrame(const std::vector<std::string>& ids) : ids_(ids) {
  ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
  TolmLPCFrame::PlatformInfo info;
  for (const std::string& id : ids_) info.plugin_map[id].plugin_id = id;
  info.plugin_map["bystander"].plugin_id = "bystander";
  TolmLPCFrame::RegisterLpcMsgCallback(OnEvent, this);
  Require(TolmLPCFrame::TolmLPCFrameInit(kEndpoint, info) == TolmLPCFrame::kFrameOk, "the frame starts");
  bystander_.Serve("/bystander/echo", [](const TolmPlugin::Request& request) {
    return TolmPlugin::Message{.body = request.message.body};
  });
  Require(bystander_.Start(kEndpoint) && bystander_.WaitReady(10'000), "a plugin that behaves is let in");
  // The frame takes note of that a moment later.
  const auto end = std::chrono::steady_clock::now() + kLong;
  LPCData answer;
  while (!TolmLPCFrame::SyncSend(answer, Message("/bystander/echo", "there already?"), 10'000)) {
    Require(std::chrono::steady_clock::now() < end, "a plugin that behaves can be called");
    std::this_thread::yield();
  }
  for (int i = 0; i < kCallers; ++i) callers_.emplace_back([this] { RunCalls(); });
  descriptors_ = OwnDescriptors();
}

bool LiveFrame::OnEvent(const FrameCallBackData& event, void* user) {
  static_cast<LiveFrame*>(user)->Note(event);
  const LPCData& data = event.lpc_data;
  if (event.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData || data.msg_type != TolmLPCFrame::kMsgTypeRequest)
    return true;
  LPCData answer;
  answer.msg_type = TolmLPCFrame::kMsgTypeReply;
  answer.msg_id = data.msg_id;
  answer.dst_id = data.src_id;
  answer.body = data.body;
  std::uint64_t ignored = 0;
  return TolmLPCFrame::AsyncSend(ignored, answer);
}

void LiveFrame::Note(const FrameCallBackData& event) {
  const std::lock_guard lock(mutex_);
  if (event.LpcMsgType == TolmLPCFrame::kLpcMsgPluginConnected) ++told_[event.lpc_data.src_id].connected;
  if (event.LpcMsgType == TolmLPCFrame::kLpcMsgPluginDisconnected)
    ++told_[event.lpc_data.src_id].disconnected;
  changed_.notify_all();
}

void LiveFrame::RunCalls() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return !calls_.empty(); });
    const auto call = std::move(calls_.front());
    calls_.pop();
    lock.unlock();
    call();
    lock.lock();
    --calls_left_;
    changed_.notify_all();
  }
}

void LiveFrame::Call(const std::string& url, int time_out_ms) {
  const std::lock_guard lock(mutex_);
  ++calls_left_;
  calls_.push([url, time_out_ms] {
    LPCData answer;
    TolmLPCFrame::SyncSend(answer, Message(url, "question"), time_out_ms);
  });
  changed_.notify_all();
}

void LiveFrame::ForgetStates() {
  for (const std::string& id : ids_) TolmLPCFrame::CLPCIntegrate::GetInstance().SetPluginInitState(false, id);
}

bool LiveFrame::IsQuiet() {
  if (lpcserver::GetStatistics().peers != 1 || OwnDescriptors() > descriptors_) return false;
  const std::lock_guard lock(mutex_);
  for (const auto& [id, told] : told_) {
    if (id != "bystander" && told.connected != told.disconnected) return false;
  }
  return true;
}

void LiveFrame::RequireQuiet() {
  {
    std::unique_lock lock(mutex_);
    Require(changed_.wait_for(lock, kLong, [this] { return calls_left_ == 0; }), "every call ends");
  }
  const auto end = std::chrono::steady_clock::now() + kLong;
  while (!IsQuiet()) {
    if (std::chrono::steady_clock::now() > end) {
      const std::lock_guard lock(mutex_);
      for (const auto& [id, told] : told_) {
        Require(id == "bystander" || told.connected == told.disconnected,
                "the host is told of beginnings and ends");
      }
      Require(lpcserver::GetStatistics().peers == 1, "a peer that has gone is forgotten");
      Require(false, "descriptors are as few as before");
    }
    std::this_thread::yield();
  }
  {
    const std::lock_guard lock(mutex_);
    Require(told_["bystander"].disconnected == 0, "a plugin that behaves stays");
    // What comes late stays with what it belongs to.
    std::erase_if(told_,
                  [](const auto& entry) { return entry.second.connected == entry.second.disconnected; });
  }
  LPCData answer;
  Require(TolmLPCFrame::SyncSend(answer, Message("/bystander/echo", "still there?"), 10'000) &&
              answer.body == "still there?",
          "a plugin that behaves is called");
  TolmPlugin::Message reply;
  TolmPlugin::Message question;
  question.url = "/host/echo";
  question.body = "still there?";
  Require(bystander_.Call(reply, question, 10'000) && reply.body == question.body,
          "a plugin that behaves is answered");
  Require(tolm::test::RunningThreads() <= kMostThreads, "threads are as few as is said");
}

}  // namespace fuzz
