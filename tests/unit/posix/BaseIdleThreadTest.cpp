// An idle thread costs nothing, also one that has to stay. Elsewhere std::clock counts another time.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "LastActTest.h"

namespace tolm::test {
namespace {

using IdleThread = LastActTest;

TEST_F(IdleThread, SleepsWhileAGuestKeepsItFromEndingAndEndsBehindThat) {
  constexpr auto kIdle = std::chrono::seconds(1);
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(0, 1, static_cast<int>(kIdle.count())));
  // Who sends before the target's thread is idle has it run the task itself, and tries again.
  EXPECT_TRUE(WaitFor([this] {
    std::atomic<int> is_guest{-1};
    EXPECT_TRUE(Post(*home_, [&] {
      EXPECT_TRUE(PostLast(*target_, [&, own = std::this_thread::get_id()] {
        const bool stayed = std::this_thread::get_id() == own;
        is_guest = stayed ? 1 : 0;
        if (stayed) gate_.Pass();
      }));
    }));
    EXPECT_TRUE(WaitFor([&] { return is_guest >= 0; }));
    return is_guest == 1;
  }));
  std::this_thread::sleep_for(kIdle + kIdle / 4);
  const std::clock_t before = std::clock();
  std::this_thread::sleep_for(kIdle);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);
  EXPECT_EQ(target_->ThreadCount(), 1U);
  gate_.Open();
  EXPECT_TRUE(WaitFor([this] { return target_->ThreadCount() == 0; }));
}

}  // namespace
}  // namespace tolm::test
