// Times of the frame, a thousand times shorter: the platform's clock in its own library's place, and the wait
// for a guard's reply led past here by the linker.

#include "support/posix/ShortTime.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>

#include "KRT/KRT.h"
#include "net/ConditionAndMutex.h"

using Clock = std::chrono::steady_clock;

std::int64_t KRT_GetTimeTick64() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

void KRT_Sleep(int milliseconds) {
  tolm::test::LetPass(std::chrono::milliseconds(milliseconds) / tolm::test::kTimesShorter);
}

namespace tolm::test {

void LetPass(std::chrono::microseconds time) {
  const std::timespec asked{static_cast<std::time_t>(time.count() / 1'000'000),
                            static_cast<long>(time.count() % 1'000'000 * 1000)};
  ::nanosleep(&asked, nullptr);
}

// The real function.
bool RealWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__real__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERN2os10UniqueLockEiRKSt8functionI"
    "FbvEE");

// What the frame's calls are led to.
bool ShortWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms, const std::function<bool()>& is_over) asm(
    "__wrap__ZN12TolmLPCFrame17ConditionAndMutex7WaitForERN2os10UniqueLockEiRKSt8functionI"
    "FbvEE");

bool ShortWaitFor(TolmLPCFrame::ConditionAndMutex* waiter, os::UniqueLock& lock, std::int32_t timeout_ms,
                  const std::function<bool()>& is_over) {
  return RealWaitFor(waiter, lock, timeout_ms / kTimesShorter, is_over);
}

}  // namespace tolm::test
