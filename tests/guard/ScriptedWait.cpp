#include "ScriptedWait.h"

#include <pthread.h>

#include <functional>
#include <mutex>
#include <string>

#include "Journal.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {
namespace {

thread_local int t_clock_of_latest_wait = -1;

}  // namespace

ScriptedWait& ScriptedWait::Get() {
  static ScriptedWait* const wait = new ScriptedWait;
  return *wait;
}

void ScriptedWait::Reset() {
  how_long = [](std::int32_t asked_ms) { return asked_ms / 1000; };
}

int ClockOfLatestWait() {
  return t_clock_of_latest_wait;
}

// The real functions.
bool RealWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, std::unique_lock<std::mutex>& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__real__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERSt11unique_lockISt5mutexEiRKSt8functionI"
    "FbvEE");
extern "C" int RealClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                             const timespec* until) asm("__real_pthread_cond_clockwait");

// What the frame's calls are led to.
bool NotedWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, std::unique_lock<std::mutex>& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__wrap__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERSt11unique_lockISt5mutexEiRKSt8functionI"
    "FbvEE");
extern "C" int NotedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                              const timespec* until) asm("__wrap_pthread_cond_clockwait");

bool NotedWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, std::unique_lock<std::mutex>& lock,
                  std::int32_t timeout_ms, const std::function<bool()>& is_over) {
  Journal::Note("wait " + std::to_string(timeout_ms));
  return RealWaitFor(waiter, lock, ScriptedWait::Get().how_long(timeout_ms), is_over);
}

extern "C" int NotedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                              const timespec* until) {
  t_clock_of_latest_wait = clock;
  return RealClockWait(condition, mutex, clock, until);
}

}  // namespace tolm::test
