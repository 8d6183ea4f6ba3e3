// By which clock the frame waits for the guard; the linker leads the standard library's waits past this
// place.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <ctime>

#include "ScriptedWait.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {
namespace {

thread_local int t_clock_of_latest_wait = -1;

}  // namespace

extern "C" int RealClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                             const timespec* until) asm("__real_pthread_cond_clockwait");
extern "C" int NotedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                              const timespec* until) asm("__wrap_pthread_cond_clockwait");

extern "C" int NotedClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                              const timespec* until) {
  t_clock_of_latest_wait = clock;
  return RealClockWait(condition, mutex, clock, until);
}

namespace {

TEST(GuardWaitClock, IsOneThatNobodyCanSet) {
  ScriptedWait::Get().how_long = [](std::int32_t asked_ms) { return asked_ms; };
  TolmLPCFrame::ConditionAndMutex waiter;
  os::UniqueLock lock(waiter.mutex);
  EXPECT_FALSE(waiter.WaitFor(lock, 1, [] { return false; }));
  EXPECT_EQ(t_clock_of_latest_wait, CLOCK_MONOTONIC);
  ScriptedWait::Get().Reset();
}

}  // namespace
}  // namespace tolm::test
