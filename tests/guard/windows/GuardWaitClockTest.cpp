// What happens to a wait for the guard when the system's clock is set meanwhile. The standard library turns
// the wait's end into a time of that clock, and the thread library turns the time into a length before it
// waits; the linker leads what both ask the clock past this place.

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

#include "ScriptedWait.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {
namespace {

using std::chrono::steady_clock;

/// The system's clock as one thread sees it. No variable of that thread's own: the library that is led past
/// here makes those.
struct Clock {
  std::atomic<DWORD> thread = 0;
  std::int64_t set_by_s = 0;
  /// By how much it is set as soon as the thread library has asked it.
  std::int64_t set_when_asked_s = 0;
  int asked = 0;
};
constinit Clock g_clock;

bool IsOfThisThread(const Clock& clock) {
  return clock.thread == ::GetCurrentThreadId();
}

void WINAPI TellThreadLibrary(FILETIME* time) {
  ::GetSystemTimePreciseAsFileTime(time);
  if (!IsOfThisThread(g_clock)) return;
  ULARGE_INTEGER told{};
  told.LowPart = time->dwLowDateTime;
  told.HighPart = time->dwHighDateTime;
  told.QuadPart += static_cast<std::uint64_t>(g_clock.set_by_s * 10'000'000);
  time->dwLowDateTime = told.LowPart;
  time->dwHighDateTime = told.HighPart;
  ++g_clock.asked;
  g_clock.set_by_s += g_clock.set_when_asked_s;
  g_clock.set_when_asked_s = 0;
}

}  // namespace

using Tell = void(WINAPI*)(FILETIME*);
extern "C" {
extern Tell g_tell asm("__wrap___imp_GetSystemTimeAsFileTime");
Tell g_tell = &TellThreadLibrary;
}

extern "C" int RealClockTime(clockid_t clock, timespec* time) asm("__real_clock_gettime");
extern "C" int ClockTime(clockid_t clock, timespec* time) asm("__wrap_clock_gettime");
extern "C" int ClockTime(clockid_t clock, timespec* time) {
  const int result = RealClockTime(clock, time);
  if (clock == CLOCK_REALTIME && IsOfThisThread(g_clock)) time->tv_sec += g_clock.set_by_s;
  return result;
}

namespace {

/// How long a wait of 25 ms for nothing takes when the clock is set by so many seconds after it has begun.
steady_clock::duration WaitWhileTheClockIsSet(std::int64_t seconds) {
  ScriptedWait::Get().how_long = [](std::int32_t asked_ms) { return asked_ms; };
  g_clock.set_by_s = 0;
  g_clock.set_when_asked_s = seconds;
  g_clock.asked = 0;
  g_clock.thread = ::GetCurrentThreadId();
  TolmLPCFrame::ConditionAndMutex waiter;
  os::UniqueLock lock(waiter.mutex);
  const auto begin = steady_clock::now();
  EXPECT_FALSE(waiter.WaitFor(lock, 25, [] { return false; }));
  const auto end = steady_clock::now();
  g_clock.thread = 0;
  EXPECT_EQ(g_clock.set_by_s, seconds);
  EXPECT_GE(g_clock.asked, 1);
  ScriptedWait::Get().Reset();
  return end - begin;
}

TEST(GuardWaitClock, AClockThatIsSetBackDoesNotProlongAWait) {
  EXPECT_LT(WaitWhileTheClockIsSet(-3600), std::chrono::seconds(60));
}

TEST(GuardWaitClock, AClockThatIsSetForwardDoesNotShortenAWait) {
  EXPECT_GE(WaitWhileTheClockIsSet(3600), std::chrono::milliseconds(25));
}

}  // namespace
}  // namespace tolm::test
