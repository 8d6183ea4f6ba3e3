#pragma once

#include <atomic>
#include <cstdint>

#include "Scripted.h"

namespace tolm::test {

/// Stands behind KRT: a tick goes on by one with every look, a sleep takes no time.
class ScriptedClock {
 public:
  static ScriptedClock& Get();
  /// The next tick is 1000; sleeping does nothing.
  void Reset();

  /// Runs inside of every sleep; `count` is how many there were since Reset, this one included.
  Scripted<void(int count)> in_sleep;

  std::int64_t Tick() { return tick_++; }
  void PassOver(int milliseconds);

 private:
  ScriptedClock() { Reset(); }

  std::atomic<std::int64_t> tick_;
  std::atomic<int> sleeps_;
};

}  // namespace tolm::test
