// Stops of pools whose threads are guests elsewhere, or that have guests.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "LastActTest.h"

namespace tolm::test {
namespace {

class StopOf : public LastActTest, public testing::WithParamInterface<bool> {
 protected:
  StopOf() {
    EXPECT_TRUE(home_->Start(1, 1, 0));
    EXPECT_TRUE(target_->Start(1, 1, 0));
  }
  static bool drain() { return GetParam(); }
  /// What is queued behind is run by a stop that drains, and destroyed by others.
  void ExpectCounted(int count) const { EXPECT_EQ(run_, drain() ? count : 0); }
};

INSTANTIATE_TEST_SUITE_P(, StopOf, testing::Bool(),
                         [](const auto& drain) { return drain.param ? "Drain" : "NoDrain"; });

TEST_P(StopOf, TheTargetWaitsForItsGuests) {
  std::atomic<bool> finished{false};
  SendToGate(1, [&] { finished = true; });
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(PostCounted(*target_));
  std::thread opener([&] {
    EXPECT_TRUE(WaitUntilRefused(*target_));
    gate_.Open();
  });
  EXPECT_TRUE(target_->Stop(drain()));
  EXPECT_TRUE(finished);
  ExpectCounted(3);
  EXPECT_EQ(target_->QueuedCount(), 0U);
  EXPECT_EQ(target_->ThreadCount(), 0U);
  opener.join();
  EXPECT_TRUE(PostCounted(*home_)) << "the thread is back where it belongs";
  EXPECT_TRUE(WaitForRun(drain() ? 4 : 1));
  EXPECT_EQ(home_->ThreadCount(), 1U);
}

TEST_P(StopOf, HomeWaitsForItsAbsentThreads) {
  std::atomic<bool> finished{false};
  SendToGate(1, [&] { finished = true; });
  std::thread opener([&] {
    EXPECT_TRUE(WaitUntilRefused(*home_));
    gate_.Open();
  });
  EXPECT_TRUE(home_->Stop(drain()));
  EXPECT_TRUE(finished);
  EXPECT_EQ(home_->ThreadCount(), 0U);
  opener.join();
  EXPECT_TRUE(PostCounted(*target_)) << "its place is free";
  EXPECT_TRUE(WaitForRun(1));
}

TEST_P(StopOf, TheTargetMayBeCalledByAGuestAndDoesNotWaitForItself) {
  std::atomic<int> stopped{0};
  SendToGate(1, [&] {
    EXPECT_TRUE(target_->Stop(drain()));
    EXPECT_FALSE(PostCounted(*target_));
    ExpectCounted(1);
    ++stopped;
  });
  EXPECT_TRUE(PostCounted(*target_));
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return stopped == 1; }));
  EXPECT_FALSE(target_->Stop(drain()));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  const int before = run_;
  EXPECT_TRUE(Send([this] { ++run_; }));
  EXPECT_TRUE(WaitForRun(before + 1));
}

TEST_P(StopOf, HomeMayBeCalledByAGuestElsewhere) {
  std::atomic<int> stopped{0};
  SendToGate(1, [&] {
    EXPECT_TRUE(home_->Stop(drain()));
    EXPECT_FALSE(PostCounted(*home_));
    ++stopped;
  });
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return stopped == 1; }));
  EXPECT_FALSE(home_->Stop(drain()));
  EXPECT_EQ(home_->ThreadCount(), 0U);
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(Send([this] { ++run_; }));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_P(StopOf, BothMayBeCalledByAGuest) {
  std::atomic<int> stopped{0};
  SendToGate(1, [&] {
    EXPECT_TRUE(home_->Stop(drain()));
    EXPECT_TRUE(target_->Stop(drain()));
    EXPECT_FALSE(home_->Stop(drain()));
    EXPECT_FALSE(target_->Stop(drain()));
    ++stopped;
  });
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return stopped == 1; }));
}

TEST_P(StopOf, TheTargetMayBeCalledByATaskThatIsOnItsWay) {
  std::atomic<int> stopped{0};
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [this] { ++run_; }));
    EXPECT_TRUE(target_->Stop(drain()));
    ++stopped;
  }));
  EXPECT_TRUE(WaitFor([&] { return stopped == 1 && destroyed_ == 2; }));
  EXPECT_FALSE(target_->Stop(drain()));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(PostCounted(*target_));
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 3; }));
}

TEST_P(StopOf, HomeMayBeCalledByATaskThatIsOnItsWay) {
  std::atomic<int> stopped{0};
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [this] { ++run_; }));
    EXPECT_TRUE(home_->Stop(drain()));
    ++stopped;
  }));
  EXPECT_TRUE(WaitForRun(1)) << "it is taken by the target already";
  EXPECT_FALSE(home_->Stop(drain()));
  EXPECT_EQ(home_->ThreadCount(), 0U);
}

TEST_P(StopOf, TheTargetWaitsForWhoIsOnItsWay) {
  TaskGate behind_the_post;
  std::atomic<bool> finished{false};
  EXPECT_TRUE(Post(*home_, [&] {
    EXPECT_TRUE(PostLast(*target_, [&] { finished = true; }));
    behind_the_post.Pass();
  }));
  EXPECT_TRUE(behind_the_post.WaitForArrivals(1));
  std::thread opener([&] {
    EXPECT_TRUE(WaitUntilRefused(*target_));
    behind_the_post.Open();
  });
  EXPECT_TRUE(target_->Stop(drain()));
  EXPECT_TRUE(finished);
  opener.join();
}

TEST_P(StopOf, ManyAtOnceReturnWhenAllIsDone) {
  constexpr int kGuests = 3;
  EXPECT_TRUE(home_->Stop(false));
  EXPECT_TRUE(target_->Stop(false));
  EXPECT_TRUE(home_->Start(kGuests, kGuests, 0));
  EXPECT_TRUE(target_->Start(kGuests + 1, kGuests + 1, 0));
  std::atomic<int> home_said_true{0};
  std::atomic<int> target_said_true{0};
  std::atomic<int> finished{0};
  const auto stop_both = [&] {
    if (target_->Stop(drain())) ++target_said_true;
    if (home_->Stop(drain())) ++home_said_true;
  };
  for (int i = 1; i <= kGuests; ++i) {
    SendToGate(i, [&] {
      stop_both();
      ++finished;
    });
  }
  // One of the target's own is there as well.
  EXPECT_TRUE(Post(*target_, [&] {
    gate_.Pass();
    stop_both();
    ++finished;
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(kGuests + 1));
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 3; ++i) {
    stoppers.emplace_back([&] {
      stop_both();
      EXPECT_EQ(finished, kGuests + 1);
    });
  }
  EXPECT_TRUE(WaitUntilRefused(*target_));
  gate_.Open();
  for (std::thread& stopper : stoppers) stopper.join();
  EXPECT_EQ(home_said_true, 1);
  EXPECT_EQ(target_said_true, 1);
  EXPECT_EQ(home_->ThreadCount() + target_->ThreadCount(), 0U);
}

TEST_P(StopOf, APoolCanStartAgainWhileAThreadOfItsEarlierLifeIsAbsent) {
  TaskGate on;
  SendToGate(1, [&] {
    EXPECT_TRUE(home_->Stop(drain()));
    EXPECT_TRUE(home_->Start(1, 1, 0));
    ++run_;
    on.Pass();
  });
  gate_.Open();
  EXPECT_TRUE(on.WaitForArrivals(1));
  EXPECT_TRUE(PostCounted(*home_));
  EXPECT_TRUE(WaitForRun(2));
  on.Open();
  EXPECT_TRUE(WaitFor([&] { return home_->ThreadCount() == 1; })) << "the earlier one has gone";
  EXPECT_TRUE(Send([this] { ++run_; }));
  EXPECT_TRUE(WaitForRun(3));
}

using PoolsEnd = LastActTest;

TEST_F(PoolsEnd, ATargetMayBeDestroyedByItsGuest) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  SendToGate(1, [this] { target_.reset(); });
  EXPECT_TRUE(PostCounted(*target_));
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 3; }));
  EXPECT_EQ(run_, 0);
  EXPECT_TRUE(PostCounted(*home_));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(PoolsEnd, AHomeMayBeDestroyedByItsOwnThreadElsewhere) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  SendToGate(1, [this] { home_.reset(); });
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 2; }));
  EXPECT_TRUE(PostCounted(*target_));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(PoolsEnd, AThreadMayDestroyItsHomeAndItsHostOnItsWay) {
  EXPECT_TRUE(home_->Start(1, 1, 0));
  EXPECT_TRUE(target_->Start(1, 1, 0));
  EXPECT_TRUE(Post(*home_, [this] {
    gate_.Pass();
    EXPECT_TRUE(PostLast(*target_, [] {}));
    target_.reset();
    home_.reset();
  }));
  gate_.Open();
  EXPECT_TRUE(WaitFor([&] { return destroyed_ == 2; }));
}

}  // namespace
}  // namespace tolm::test
