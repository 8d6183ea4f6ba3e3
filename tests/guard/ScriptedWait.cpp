#include "ScriptedWait.h"

#include <functional>
#include <string>

#include "Journal.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {

ScriptedWait& ScriptedWait::Get() {
  static ScriptedWait* const wait = new ScriptedWait;
  return *wait;
}

void ScriptedWait::Reset() {
  how_long = [](std::int32_t asked_ms) { return asked_ms / 1000; };
}

// The real function.
bool RealWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__real__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERN2os10UniqueLockEiRKSt8functionIFbvEE");

// What the frame's calls are led to.
bool NotedWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__wrap__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERN2os10UniqueLockEiRKSt8functionIFbvEE");

bool NotedWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms,
                  const std::function<bool()>& is_over) {
  Journal::Note("wait " + std::to_string(timeout_ms));
  return RealWaitFor(waiter, lock, ScriptedWait::Get().how_long(timeout_ms), is_over);
}

}  // namespace tolm::test
