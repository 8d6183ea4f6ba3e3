#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "TolmLPCFrame.h"

namespace trust {

/// What one registered callback of the host is given. A callback that begins behind Over is counted, and does
/// nothing else. One that began before and still runs when the life is destroyed comes back to memory that
/// was taken away, which ends the process.
class Life {
 public:
  /// Does what the host does with an event, until it returns; `life` is this one's number.
  using Deed = void (*)(const TolmLPCFrame::FrameCallBackData& event, long life);

  /// Registers the callback of a new life, which runs `deed`.
  explicit Life(Deed deed);
  /// Takes the memory away. REQUIRES: Over was called.
  ~Life();
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  /// The frame's stop has returned: no callback of this life may begin any more. To be called behind the stop
  /// at once, on its thread: what begins in between counts as one before it.
  void Over();
  long number() const { return number_; }
  /// Callbacks of this life that run.
  long Inside() const;

  /// Callbacks that began when their life was over.
  static long CallbacksAfter();
  /// By the kinds of events.
  static std::array<long, 6> Seen();

 private:
  static bool Called(const TolmLPCFrame::FrameCallBackData& event, void* user);

  const long number_;
  void* const page_;
};

}  // namespace trust
