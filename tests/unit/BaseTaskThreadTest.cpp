// Which task a thread runs behind its own, and what the pool makes of it to which that belongs.

#include "TolmBase/TaskThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LastActTest.h"
#include "support/LogCapture.h"

namespace tolm::test {
namespace {

using Tolm::Base::CTaskThread;
using LastAct = LastActTest;

std::thread::id Own() {
  return std::this_thread::get_id();
}

// ------------------------------------------------------------------------------------ Following

TEST_F(LastAct, WhatItPostsFollowsOnTheSameThread) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  std::thread::id first;
  std::thread::id second;
  EXPECT_TRUE(Post(*home_, [&] {
    first = Own();
    EXPECT_TRUE(PostLast(*target_, [&] {
      second = Own();
      EXPECT_EQ(destroyed_, 1) << "the task before it is gone by now";
      ++run_;
    }));
    EXPECT_EQ(target_->QueuedCount(), 0U);
    EXPECT_EQ(run_, 0) << "not before the task has returned";
  }));
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_EQ(first, second);
}

TEST_F(LastAct, AChainOverThreePoolsAndBackHomeStaysOnOneThread) {
  Pool third("Third");
  for (Pool* pool : {home_.get(), target_.get(), &third}) EXPECT_TRUE(pool->Start(2, 2, 0));
  std::mutex mutex;
  std::vector<std::thread::id> threads;
  const auto note = [&] {
    const std::lock_guard lock(mutex);
    threads.push_back(Own());
  };
  EXPECT_TRUE(Post(*home_, [&] {
    note();
    PostLast(*target_, [&] {
      note();
      PostLast(third, [&] {
        note();
        PostLast(*home_, [&] {
          note();
          PostLast(*home_, [&] {
            note();
            ++run_;
          });
        });
      });
    });
  }));
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_EQ(threads, std::vector<std::thread::id>(5, threads.at(0)));
  EXPECT_TRUE(third.Stop(true));
}

TEST_F(LastAct, WhatATaskPostsBeforeOrBehindItIsForAnotherThread) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  std::atomic<int> on_own_thread{0};
  EXPECT_TRUE(Post(*home_, [&] {
    const auto own = Own();
    const auto posted = [&, own] {
      if (Own() == own) ++on_own_thread;
      ++run_;
    };
    EXPECT_TRUE(Post(*target_, posted));
    EXPECT_TRUE(WaitForRun(1)) << "it is run while this task goes on";
    { const CLastAct over; }
    EXPECT_TRUE(Post(*target_, posted));
    EXPECT_TRUE(WaitForRun(2));
  }));
  EXPECT_TRUE(WaitForRun(2));
  EXPECT_EQ(on_own_thread, 0);
}

TEST_F(LastAct, TheSecondThingItPostsIsQueuedAsUsual) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(2, 2, 0));
  std::thread::id home_thread;
  std::atomic<bool> first_stayed{false};
  std::atomic<bool> second_stayed{true};
  EXPECT_TRUE(Post(*home_, [&] {
    home_thread = Own();
    const CLastAct last_act;
    EXPECT_TRUE(Post(*target_, [&] {
      first_stayed = Own() == home_thread;
      gate_.Pass();
    }));
    EXPECT_TRUE(Post(*target_, [&] {
      second_stayed = Own() == home_thread;
      ++run_;
    }));
    EXPECT_TRUE(WaitForRun(1)) << "it does not wait for the thread that is still here";
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_TRUE(first_stayed);
  EXPECT_FALSE(second_stayed);
}

TEST_F(LastAct, IsWithoutEffectOnAThreadThatRunsNoTasks) {
  EXPECT_TRUE(target_->Start(1, 1, 0));
  const CLastAct last_act;
  EXPECT_EQ(CTaskThread::InLastAct(), nullptr);
  EXPECT_TRUE(PostCounted(*target_));
  EXPECT_TRUE(WaitForRun(1)) << "while the last act still lives";
}

TEST_F(LastAct, AFollowerRunsAlsoBehindATaskThatThrew) {
  const LogCapture log;
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [&] { ++run_; }));
    throw std::runtime_error("behind its last act");
  }));
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_TRUE(Send([] { throw std::runtime_error("in a guest's task"); }));
  EXPECT_TRUE(Send([&] { ++run_; }));
  EXPECT_TRUE(WaitForRun(2));
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 6; }));
}

TEST_F(LastAct, WaitsInTheQueueOfAPoolThatIsNotStartedYet) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(Send([&] { ++run_; }));
  EXPECT_TRUE(WaitFor([&] { return target_->QueuedCount() == 1; }));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(LastAct, IsRefusedByAPoolThatWasStopped) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Stop(false));
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_FALSE(PostLast(*target_, [&] { ++run_; }));
    EXPECT_EQ(destroyed_, 1);
  }));
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 2; }));
  EXPECT_EQ(run_, 0);
}

// ------------------------------------------------------------------------- What the target allows

TEST_F(LastAct, APoolWithoutAnIdleThreadGrowsAsAlways) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(0, 2, 0));
  std::atomic<bool> stayed{true};
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [&, own = Own()] {
      stayed = Own() == own;
      ++run_;
    }));
  }));
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_FALSE(stayed);
  EXPECT_EQ(target_->ThreadCount(), 1U);
}

TEST_F(LastAct, AGuestTakesAPlaceOfTheTarget) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  SendToGate(1, [&] { EXPECT_EQ(run_, 0); });
  EXPECT_TRUE(PostCounted(*target_));
  EXPECT_EQ(target_->QueuedCount(), 1U);
  gate_.Open();
  EXPECT_TRUE(WaitForRun(1)) << "it is run when the guest has left";
}

TEST_F(LastAct, WaitsForItsTurnWhenGuestsHaveAllPlaces) {
  EXPECT_TRUE(home_->Start(3, 3, 0));
  EXPECT_TRUE(target_->Start(2, 2, 0));
  SendToGate(1);
  SendToGate(2);
  EXPECT_TRUE(Send([&] { ++run_; }));
  EXPECT_TRUE(WaitFor([&] { return target_->QueuedCount() == 1; }));
  EXPECT_EQ(run_, 0);
  gate_.Open();
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(LastAct, OvertakesNobody) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  std::mutex mutex;
  std::string order;
  const auto append = [&](char letter) {
    {
      const std::lock_guard lock(mutex);
      order += letter;
    }
    ++run_;
  };
  EXPECT_TRUE(Post(*target_, [&] { gate_.Pass(); }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_TRUE(Post(*target_, [&] { append('1'); }));
  EXPECT_TRUE(Send([&] { append('2'); }));
  EXPECT_TRUE(WaitFor([&] { return target_->QueuedCount() == 2; }));
  EXPECT_TRUE(Post(*target_, [&] { append('3'); }));
  gate_.Open();
  EXPECT_TRUE(WaitForRun(3));
  EXPECT_EQ(order, "123");
}

// The target's thread has been called for the first, and has mostly not come yet.
TEST_F(LastAct, DoesNotOvertakeWhatWasPostedJustBefore) {
  constexpr int kRounds = 200;
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_TRUE(Post(*home_, [&, i] {
      EXPECT_TRUE(Post(*target_, [&, i] { EXPECT_EQ(++run_, 2 * i + 1); }));
      EXPECT_TRUE(PostLast(*target_, [&, i] { EXPECT_EQ(++run_, 2 * i + 2); }));
    }));
    ASSERT_TRUE(WaitForRun(2 * i + 2));
  }
}

TEST_F(LastAct, IsNotOvertakenByWhatIsPostedBehindIt) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [&] { EXPECT_EQ(++run_, 1); }));
    EXPECT_TRUE(Post(*target_, [&] { EXPECT_EQ(++run_, 2); }));
  }));
  EXPECT_TRUE(WaitForRun(2));
}

}  // namespace
}  // namespace tolm::test
