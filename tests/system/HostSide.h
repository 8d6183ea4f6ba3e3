#pragma once

#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace tolm::test {

/// What is to happen at once; sanitizers slow everything down, the ends of processes most.
inline constexpr std::chrono::seconds kAtOnce{TEST_SANITIZED ? 5 : 1};

/// Reasons as GetLPCLastError gives them.
inline constexpr int kNoSuchPeer = 6;
inline constexpr int kPeerGone = 7;
inline constexpr int kTimeOut = 8;
inline constexpr int kQueueFull = 9;
inline constexpr int kRefused = 11;

/// The host in this process: keeps what the frame's callback and log were told.
class HostSide {
 public:
  using Event = TolmLPCFrame::FrameCallBackData;

  HostSide();
  ~HostSide();
  HostSide(const HostSide&) = delete;
  HostSide& operator=(const HostSide&) = delete;

  /// TolmLPCFrameInit for a host with these plugins.
  int Start(const std::string& endpoint, const std::vector<std::string>& plugins);

  /// Called for each event, inside of the frame's callback, after it was kept. To be set before Start.
  void SetHook(std::function<void(const Event&)> hook) { hook_ = std::move(hook); }
  /// Only what tells of plugins is kept from now on, no messages; for floods.
  void KeepNoMessages();

  std::vector<Event> Events() const;
  /// Waits for `count` events of this type from this plugin.
  bool WaitForEvent(int type, const std::string& id, std::size_t count = 1,
                    std::chrono::milliseconds limit = kPatience);
  bool WaitFor(const std::function<bool(const Event&)>& matches, std::size_t count = 1,
               std::chrono::milliseconds limit = kPatience);
  std::size_t CountOf(int type, const std::string& id) const;

  /// Waits for a log line that contains `text`.
  bool WaitForLog(const std::string& text, std::chrono::milliseconds limit = kPatience);
  std::string LogText() const;

 private:
  static bool Callback(const Event& event, void* user);
  static void Log(int level, const char* tag, const char* text, void* user);

  std::function<void(const Event&)> hook_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All below is guarded by mutex_.
  std::vector<Event> events_;
  std::vector<std::string> log_;
  bool keeping_messages_ = true;
};

TolmLPCFrame::LPCData Request(const std::string& url, const std::string& body = {});
TolmLPCFrame::LPCData Notification(const std::string& url, const std::string& body = {});

/// What SyncSend gave.
struct Answer {
  bool came = false;
  TolmLPCFrame::LPCData data;
  int error = 0;
  std::chrono::steady_clock::duration took{};
};
Answer Call(const TolmLPCFrame::LPCData& request, std::chrono::milliseconds time_out = kPatience);

bool Send(const TolmLPCFrame::LPCData& message);

}  // namespace tolm::test
