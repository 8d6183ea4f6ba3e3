#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Channel.h"
#include "Process.h"
#include "Roles.h"
#include "Samples.h"
#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "Urls.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr auto kLongest = std::chrono::seconds(30);
constexpr std::uint32_t kFrameTypeWithAgent = 1;

/// When each plugin has finished initialising, each time.
class InitTimes {
 public:
  static bool Callback(const TolmLPCFrame::FrameCallBackData& data, void* user) {
    if (data.LpcMsgType != TolmLPCFrame::kLpcMsgPluginInited) return true;
    auto& self = *static_cast<InitTimes*>(user);
    const auto now = Clock::now();
    const std::lock_guard lock(self.mutex_);
    self.times_[data.lpc_data.src_id].push_back(now);
    self.changed_.notify_all();
    return true;
  }

  Clock::time_point Await(const std::string& id, std::size_t count) {
    std::unique_lock lock(mutex_);
    const auto& times = times_[id];
    if (!changed_.wait_for(lock, kLongest, [&] { return times.size() >= count; })) {
      throw std::runtime_error("the plugin " + id + " does not come");
    }
    return times[count - 1];
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  std::map<std::string, std::vector<Clock::time_point>> times_;
};

/// Waits for a guard's connection, of which only the log tells. The frame logs below errors until then only.
class GuardWatch {
 public:
  void Begin() { TolmLPCFrame::SetLogSink(Sink, this); }
  void Wait() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kLongest, [this] { return seen_; })) {
      throw std::runtime_error("no guard comes");
    }
    lock.unlock();
    TolmLPCFrame::SetLogSink(nullptr, nullptr);
  }

 private:
  static void Sink(int /*level*/, const char* /*tag*/, const char* text, void* user) {
    if (std::string_view(text).find("Get client info") == std::string_view::npos) return;
    auto& self = *static_cast<GuardWatch*>(user);
    const std::lock_guard lock(self.mutex_);
    self.seen_ = true;
    self.changed_.notify_all();
  }

  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  bool seen_ = false;
};

// Last as long as the process: the frame's threads know them.
InitTimes& g_times = *new InitTimes;
GuardWatch& g_guard = *new GuardWatch;

double MillisecondsToStart(const std::string& endpoint, const Order& order) {
  const fs::path program = ThisProgram();
  TolmLPCFrame::PlatformInfo info;
  info.frame_full_path = program.string();
  info.frame_type = static_cast<std::int32_t>(order.size);
  for (std::size_t i = 0; i < order.count; ++i) info.plugin_map[PluginName(i)].plugin_id = PluginName(i);
  TolmLPCFrame::RegisterLpcMsgCallback(InitTimes::Callback, &g_times);
  // Who has no such file does so to see what it costs, and knows what the frame says about it.
  if (!fs::exists(program.parent_path() / "LpcFrame.xml")) {
    TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  }
  if (order.size == kFrameTypeWithAgent) g_guard.Begin();
  const auto begin = Clock::now();
  if (TolmLPCFrame::TolmLPCFrameInit(endpoint, info) != TolmLPCFrame::kFrameOk) {
    throw std::runtime_error("the frame does not start");
  }
  return SecondsSince(begin) * 1e3;
}

}  // namespace

int RunHostRole(const std::string& endpoint) {
  Channel channel(ParentDescriptor());
  while (const auto order = channel.Receive()) {
    std::vector<double> answer;
    switch (order->task) {
      case Task::kSilence:
        TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
        break;
      case Task::kStartFrame:
        answer = {MillisecondsToStart(endpoint, *order)};
        break;
      case Task::kStartPlugins:
        // Before it comes, each question to it would be waited for in vain.
        g_guard.Wait();
        TolmLPCFrame::TolmLPCFrameNotifyStartPlugins("--endpoint " + endpoint);
        break;
      case Task::kAwaitInit: {
        const auto when = g_times.Await(PluginName(order->size), order->count);
        answer = {std::chrono::duration<double>(when.time_since_epoch()).count()};
        break;
      }
      case Task::kForgetPeak:
        answer = {ForgetPeak()};
        break;
      case Task::kPeak:
        answer = {PeakKiB()};
        break;
      case Task::kProcessorTime:
        answer = {ProcessorMilliseconds()};
        break;
      case Task::kStopFrame:
        TolmLPCFrame::TolmLPCFrameUnInit();
        break;
      default:
        throw std::runtime_error("an order that is not for a host");
    }
    channel.Answer(answer);
  }
  return 0;
}

}  // namespace bench
