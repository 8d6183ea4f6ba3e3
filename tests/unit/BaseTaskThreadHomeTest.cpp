// What a pool does whose thread runs another one's task.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "LastActTest.h"

namespace tolm::test {
namespace {

using LastActAtHome = LastActTest;

std::thread::id Own() {
  return std::this_thread::get_id();
}

TEST_F(LastActAtHome, IsLeftToTheTargetWhileSomebodyWaitsAtHome) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  std::atomic<bool> stayed{true};
  TaskGate before;
  EXPECT_TRUE(Post(*home_, [&] {
    before.Pass();
    EXPECT_TRUE(PostLast(*target_, [&, own = Own()] {
      stayed = Own() == own;
      ++run_;
    }));
    EXPECT_TRUE(WaitForRun(1));
  }));
  EXPECT_TRUE(before.WaitForArrivals(1));
  EXPECT_TRUE(PostCounted(*home_));
  before.Open();
  EXPECT_TRUE(WaitForRun(2));
  EXPECT_FALSE(stayed);
}

TEST_F(LastActAtHome, HomeReplacesAThreadThatIsAbsentAndHasOneLessWhenItIsBack) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  SendToGate(1);
  EXPECT_EQ(home_->ThreadCount(), 1U) << "not before there is something to do";
  for (int i = 1; i <= 3; ++i) {
    EXPECT_TRUE(PostCounted(*home_));
    EXPECT_TRUE(WaitForRun(i));
  }
  EXPECT_EQ(home_->ThreadCount(), 2U);
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return home_->ThreadCount() == 1; }));
  EXPECT_TRUE(PostCounted(*home_));
  EXPECT_TRUE(WaitForRun(4));
  EXPECT_EQ(home_->ThreadCount(), 1U);
}

TEST_F(LastActAtHome, WhatComesHomeBetweenThePostAndTheLeavingIsRunMeanwhile) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [&] { gate_.Pass(); }));
    EXPECT_TRUE(PostCounted(*home_));
    EXPECT_EQ(home_->QueuedCount(), 1U) << "the only place is taken by this very task";
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(LastActAtHome, NoMoreThanFourOfAHomeAreGuestsElsewhere) {
  constexpr int kTasks = 7;
  constexpr int kMostAbsent = 4;
  EXPECT_TRUE(home_->Start(kTasks, kTasks, 0));
  EXPECT_TRUE(target_->Start(kTasks, kTasks, 0));
  std::atomic<int> stayed{0};
  for (int i = 1; i <= kTasks; ++i) {
    EXPECT_TRUE(Post(*home_, [&] {
      EXPECT_TRUE(PostLast(*target_, [&, own = Own()] {
        if (Own() == own) ++stayed;
        gate_.Pass();
      }));
    }));
    EXPECT_TRUE(gate_.WaitForArrivals(i));
    EXPECT_EQ(stayed, std::min(i, kMostAbsent));
  }
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 2 * kTasks; }));
  // When they are back others may leave.
  EXPECT_TRUE(WaitFor([&] {
    std::atomic<int> done{0};
    const int before = stayed;
    EXPECT_TRUE(Post(*home_, [&] {
      EXPECT_TRUE(PostLast(*target_, [&, own = Own()] {
        if (Own() == own) ++stayed;
        ++done;
      }));
    }));
    EXPECT_TRUE(WaitFor([&] { return done == 1; }));
    return stayed > before;
  }));
}

TEST_F(LastActAtHome, AThreadThatIsAwayMayGoOnAlsoWhenSomebodyWaitsAtHome) {
  Pool third("Third");
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(third.Start(1, 1, 0));
  TaskGate at_home;
  std::atomic<bool> stayed{false};
  SendToGate(1, [&] {
    EXPECT_TRUE(PostLast(third, [&, own = Own()] {
      stayed = Own() == own;
      ++run_;
    }));
  });
  // Its replacement is busy, and behind that somebody waits.
  EXPECT_TRUE(Post(*home_, [&] { at_home.Pass(); }));
  EXPECT_TRUE(at_home.WaitForArrivals(1));
  EXPECT_TRUE(PostCounted(*home_));
  gate_.Open();
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_TRUE(stayed);
  at_home.Open();
  EXPECT_TRUE(WaitForRun(2));
}

TEST_F(LastActAtHome, IdleThreadsEndAndTheLeastNumberStays) {
  EXPECT_TRUE(home_->Start(1, 2, 1));
  EXPECT_TRUE(target_->Start(0, 2, 1));
  EXPECT_TRUE(PostCounted(*target_));  // somebody is idle there now
  EXPECT_TRUE(WaitForRun(1));
  SendToGate(1);
  TaskGate at_home;
  for (int i = 1; i <= 2; ++i) {
    EXPECT_TRUE(Post(*home_, [&] { at_home.Pass(); }));
    EXPECT_TRUE(at_home.WaitForArrivals(i));
  }
  EXPECT_EQ(home_->ThreadCount(), 3U);
  at_home.Open();
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return home_->ThreadCount() == 1 && target_->ThreadCount() == 0; }));
  EXPECT_TRUE(PostCounted(*home_));
  EXPECT_TRUE(WaitForRun(2));
  EXPECT_EQ(home_->ThreadCount(), 1U);
}

}  // namespace
}  // namespace tolm::test
