#pragma once

// A whole frame in this process, with a host that answers, a plugin that behaves, and threads that call.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "TolmLPCFrame.h"
#include "TolmPlugin/Plugin.h"
#include "support/Folder.h"

namespace fuzz {

class LiveFrame {
 public:
  static constexpr char kEndpoint[] = "frame";

  /// Starts the frame, which never stops: a fuzzer's process just ends. `ids` are those that the host lists.
  explicit LiveFrame(const std::vector<std::string>& ids);

  /// A waiting call of the host, on a thread of its own.
  void Call(const std::string& url, int time_out_ms);
  /// The plugins count as not initialised, as in a new frame.
  void ForgetStates();
  /// What must hold when the fuzzer's peers have gone: every call has ended, the host was told of each
  /// connection's beginning and end, the plugin that behaves is served, and threads and descriptors are as
  /// few as before.
  void RequireQuiet();

 private:
  struct Told {
    int connected = 0;
    int disconnected = 0;
  };

  static bool OnEvent(const TolmLPCFrame::FrameCallBackData& event, void* user);
  void Note(const TolmLPCFrame::FrameCallBackData& event);
  void RunCalls();
  bool IsQuiet();

  const Folder folder_;
  const std::vector<std::string> ids_;
  std::mutex mutex_;
  // All below is guarded by mutex_.
  std::condition_variable changed_;
  std::map<std::string, Told> told_;
  std::queue<std::function<void()>> calls_;
  int calls_left_ = 0;
  TolmPlugin::Plugin bystander_{"bystander"};
  std::vector<std::thread> callers_;
  long descriptors_ = 0;
};

}  // namespace fuzz
