#pragma once

#include <TolmLPCFrame.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "os/Mutex.h"

namespace tour {

using Clock = std::chrono::steady_clock;

/// What has been observed, in words and in order: what the frame told the host's callback, and what its log
/// said.
class HostEvents {
 public:
  struct Event {
    std::string text;
    Clock::time_point at;
  };

  /// Both for the frame; `user` is the HostEvents object.
  static bool Callback(const TolmLPCFrame::FrameCallBackData& data, void* user);
  static void LogSink(int level, const char* tag, const char* text, void* user);

  void Add(const std::string& text);
  /// Makes every wait for what has not happened yet end, now and later, until Resume.
  void Interrupt();
  void Resume();
  bool IsInterrupted() const;

  /// The first event with this text that was not taken yet, as soon as there is one; nothing after
  /// `limit` or an interrupt.
  std::optional<Event> Take(const std::string& text, std::chrono::milliseconds limit);
  /// The first event of any text that was not taken yet; waits until there is one, or an interrupt.
  std::optional<Event> TakeNext();
  void ForgetAll();
  /// Everything that nobody has taken.
  std::vector<Event> Rest() const;

 private:
  mutable os::Mutex mutex_;
  os::Condition changed_;
  std::vector<Event> events_ TOLM_GUARDED_BY(mutex_);
  bool interrupted_ TOLM_GUARDED_BY(mutex_) = false;
};

}  // namespace tour
