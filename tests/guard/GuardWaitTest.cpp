#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "GuardScene.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {
namespace {

using TolmLPCFrame::ConditionAndMutex;

/// What a sender waits on, by itself.
class GuardWait : public GuardTest {
 protected:
  GuardWait() {
    waits_.how_long = [](std::int32_t asked_ms) { return asked_ms; };
  }
  bool Wait(std::int32_t timeout_ms, const std::function<bool()>& is_over) {
    os::UniqueLock lock(waiter_.mutex);
    const bool result = waiter_.WaitFor(lock, timeout_ms, is_over);
    EXPECT_TRUE(lock.owns_lock());
    return result;
  }
  ConditionAndMutex waiter_;
};

TEST_F(GuardWait, WhatIsOverIsNotWaitedFor) {
  EXPECT_TRUE(Wait(1000000, [] { return true; }));
  EXPECT_TRUE(Wait(0, [] { return true; }));
}

TEST_F(GuardWait, ItLastsForItsTimeOutAndNotLess) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(Wait(25, [] { return false; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(25));
  EXPECT_FALSE(Wait(0, [] { return false; }));
  EXPECT_FALSE(Wait(-1, [] { return false; }));
}

TEST_F(GuardWait, WakeUpsBeforeItIsOverDoNotEndIt) {
  std::atomic<bool> over{false};
  std::atomic<int> looks{0};
  std::jthread waker([&] {
    for (int i = 0; i < 10; ++i) {
      const int seen = looks;
      WaitFor([&] {
        const os::MutexLock lock(waiter_.mutex);
        waiter_.condition.notify_all();
        return looks > seen;
      });
    }
    const os::MutexLock lock(waiter_.mutex);
    over = true;
    waiter_.condition.notify_all();
  });
  EXPECT_TRUE(Wait(20000, [&] {
    ++looks;
    return over.load();
  }));
  EXPECT_GE(looks, 11);
}

}  // namespace
}  // namespace tolm::test
