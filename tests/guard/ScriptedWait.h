#pragma once

#include <cstdint>

#include "Scripted.h"

namespace tolm::test {

/// Stands in front of ConditionAndMutex::WaitFor. Each wait is noted in the journal as "wait <asked ms>", and
/// then carried out by the real one for as long as the script says.
class ScriptedWait {
 public:
  static ScriptedWait& Get();
  /// Every wait that is in vain takes a thousandth of what was asked for.
  void Reset();

  /// Asked once a wait is about to begin, with the waiter's mutex held; milliseconds.
  Scripted<std::int32_t(std::int32_t asked_ms)> how_long;

 private:
  ScriptedWait() { Reset(); }
};

}  // namespace tolm::test
