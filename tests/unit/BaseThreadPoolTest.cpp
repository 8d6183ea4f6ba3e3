#include "TolmBase/MessageLoopDyThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "OwnThread.h"
#include "PoolTasks.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace {

using Tolm::Base::CMessageLoopDyThreadPool;
using Gate = tolm::test::TaskGate;
using Task = tolm::test::FunctionTask;
using tolm::test::LogCapture;
using tolm::test::WaitFor;

class ThreadPool : public testing::Test {
 protected:
  ~ThreadPool() override {
    gate_.Open();
    pool_.reset();
  }

  bool Post(std::function<void()> run) { return pool_->PostTask(new Task(std::move(run))); }
  /// Posts a task that counts itself when it is run and when it is destroyed.
  bool PostCounted() {
    return pool_->PostTask(new Task([this] { ++run_; }, [this] { ++destroyed_; }));
  }
  /// Posts `count` tasks that wait at the gate, one by one, each once the one before is taken.
  void Block(int count) {
    for (int i = 0; i < count; ++i) {
      ASSERT_TRUE(Post([this] { gate_.Pass(); }));
      ASSERT_TRUE(gate_.WaitForArrivals(i + 1));
    }
  }
  bool WaitForRun(int count) {
    // It is mostly a matter of microseconds, and ten thousand naps are long.
    for (int look = 0; look < 1000 && run_ < count; ++look) std::this_thread::yield();
    return WaitFor([&] { return run_ >= count; });
  }

  std::atomic<int> run_{0};
  std::atomic<int> destroyed_{0};
  Gate gate_;
  std::unique_ptr<CMessageLoopDyThreadPool> pool_ = std::make_unique<CMessageLoopDyThreadPool>("TestPool");
};

// --------------------------------------------------------------------------------------- Start

TEST_F(ThreadPool, TasksPostedBeforeStartRunAfterIt) {
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->QueuedCount(), 5U);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  EXPECT_EQ(run_, 0);
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(WaitForRun(5));
  EXPECT_EQ(pool_->QueuedCount(), 0U);
}

TEST_F(ThreadPool, StartMakesTheMinimumOfThreads) {
  EXPECT_TRUE(pool_->Start(3, 10, 0));
  EXPECT_EQ(pool_->ThreadCount(), 3U);
}

TEST_F(ThreadPool, StartMakesAThreadForEachQueuedTaskUpToTheMaximum) {
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(Post([this] { gate_.Pass(); }));
  EXPECT_TRUE(pool_->Start(1, 4, 0));
  EXPECT_EQ(pool_->ThreadCount(), 4U);
  EXPECT_TRUE(gate_.WaitForArrivals(4));
  EXPECT_EQ(pool_->QueuedCount(), 2U);
  gate_.Open();
}

TEST_F(ThreadPool, StartOfARunningPoolChangesNothing) {
  EXPECT_TRUE(pool_->Start(1, 2, 0));
  EXPECT_FALSE(pool_->Start(5, 9, 0));
  EXPECT_EQ(pool_->ThreadCount(), 1U);
  Block(2);
  EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->ThreadCount(), 2U);
  gate_.Open();
}

TEST_F(ThreadPool, NumbersBelowTheirLeastCountAsTheLeast) {
  EXPECT_TRUE(pool_->Start(-3, -2, -1));
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  Block(1);
  EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->ThreadCount(), 1U);
  gate_.Open();
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(ThreadPool, AMaximumBelowTheMinimumCountsAsTheMinimum) {
  EXPECT_TRUE(pool_->Start(3, 1, 0));
  EXPECT_EQ(pool_->ThreadCount(), 3U);
  Block(3);
  EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->ThreadCount(), 3U);
  gate_.Open();
}

TEST_F(ThreadPool, ThreadsCarryTheNameOfThePool) {
  std::string name;
  CMessageLoopDyThreadPool pool("A name that is too long");
  EXPECT_TRUE(pool.Start(1, 1, 0));
  EXPECT_TRUE(pool.PostTask(new Task([&name] { name = tolm::test::OwnThreadName(); })));
  EXPECT_TRUE(pool.Stop(true));
  // Some systems keep fifteen bytes of it.
  EXPECT_TRUE(name == "A name that is too long" || name == "A name that is ") << name;
}

// -------------------------------------------------------------------------------------- Growth

TEST_F(ThreadPool, ATaskForAnIdleThreadAddsNone) {
  EXPECT_TRUE(pool_->Start(2, 30, 0));
  // Also at once after the start, when the two have not come to wait yet.
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->ThreadCount(), 2U);
  EXPECT_TRUE(WaitForRun(2));
}

TEST_F(ThreadPool, ThreadsAreAddedUpToTheMaximumWhileTasksBlock) {
  EXPECT_TRUE(pool_->Start(2, 30, 0));
  for (int i = 0; i < 40; ++i) EXPECT_TRUE(Post([this] { gate_.Pass(); }));
  EXPECT_TRUE(gate_.WaitForArrivals(30));
  EXPECT_EQ(pool_->ThreadCount(), 30U);
  EXPECT_TRUE(WaitFor([this] { return pool_->QueuedCount() == 10; }));
  gate_.Open();
  EXPECT_TRUE(pool_->Stop(true));
}

TEST_F(ThreadPool, ABurstOfTasksThatBlockGetsAThreadForEach) {
  EXPECT_TRUE(pool_->Start(1, 10, 0));
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(Post([this] { gate_.Pass(); }));
  EXPECT_TRUE(gate_.WaitForArrivals(10));
  EXPECT_EQ(pool_->ThreadCount(), 10U);
  gate_.Open();
}

TEST_F(ThreadPool, TheIdleTimeDoesNotDelayGrowth) {
  EXPECT_TRUE(pool_->Start(0, 5, 3600));
  Block(5);
  EXPECT_EQ(pool_->ThreadCount(), 5U);
  gate_.Open();
}

TEST_F(ThreadPool, ATaskMayPostToItsOwnPool) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(Post([this] { EXPECT_TRUE(PostCounted()); }));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(ThreadPool, SurplusThreadsEndAfterTheIdleTime) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(pool_->Start(2, 8, 1));
  Block(8);
  EXPECT_EQ(pool_->ThreadCount(), 8U);
  gate_.Open();
  EXPECT_TRUE(WaitFor([this] { return pool_->ThreadCount() == 2; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  // The rest works on, and the pool may grow again.
  Gate again;
  for (int i = 1; i <= 8; ++i) {
    EXPECT_TRUE(Post([&again] { again.Pass(); }));
    EXPECT_TRUE(again.WaitForArrivals(i));
  }
  EXPECT_EQ(pool_->ThreadCount(), 8U);
  again.Open();
  EXPECT_TRUE(pool_->Stop(true));
}

TEST_F(ThreadPool, APoolWithoutAMinimumEndsItsLastThreadAndMakesANewOne) {
  EXPECT_TRUE(pool_->Start(0, 2, 1));
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_TRUE(WaitFor([this] { return pool_->ThreadCount() == 0; }));
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(WaitForRun(2));
}

TEST_F(ThreadPool, WithoutAnIdleTimeTheSameThreadsServeEveryBurst) {
  EXPECT_TRUE(pool_->Start(1, 5, 0));
  std::mutex mutex;
  std::vector<std::set<std::thread::id>> bursts(3);
  for (auto& ids : bursts) {
    const auto gate = std::make_shared<Gate>();
    for (int i = 0; i < 5; ++i) {
      EXPECT_TRUE(Post([&mutex, &ids, gate] {
        {
          const std::lock_guard lock(mutex);
          ids.insert(std::this_thread::get_id());
        }
        gate->Pass();
      }));
    }
    EXPECT_TRUE(gate->WaitForArrivals(5));
    gate->Open();
  }
  EXPECT_TRUE(pool_->Stop(true));
  EXPECT_EQ(bursts[0].size(), 5U);
  EXPECT_EQ(bursts[0], bursts[1]);
  EXPECT_EQ(bursts[0], bursts[2]);
}

TEST_F(ThreadPool, ATaskPostedWhenTheLastThreadIsAboutToEndIsNotLost) {
  constexpr int kPools = 64;
  std::vector<std::unique_ptr<CMessageLoopDyThreadPool>> pools;
  std::vector<std::chrono::steady_clock::time_point> idle_since;
  for (int i = 0; i < kPools; ++i) {
    pools.push_back(std::make_unique<CMessageLoopDyThreadPool>());
    EXPECT_TRUE(pools.back()->Start(0, 1, 1));
    EXPECT_TRUE(pools.back()->PostTask(new Task([this] { ++run_; })));
    EXPECT_TRUE(WaitForRun(i + 1));
    idle_since.push_back(std::chrono::steady_clock::now());
  }
  for (std::size_t i = 0; i < pools.size(); ++i) {
    // From a little before the end of the idle time to a little behind it.
    const auto moment = idle_since[i] + std::chrono::milliseconds(998) + i * std::chrono::microseconds(60);
    while (std::chrono::steady_clock::now() < moment) std::this_thread::yield();
    EXPECT_TRUE(pools[i]->PostTask(new Task([this] { ++run_; })));
  }
  EXPECT_TRUE(WaitForRun(2 * kPools));
  pools.clear();
}

// --------------------------------------------------------------------------------------- Tasks

TEST_F(ThreadPool, TasksOfOneThreadRunInTheOrderOfPosting) {
  std::vector<int> order;
  for (int i = 0; i < 50; ++i) EXPECT_TRUE(Post([&order, i] { order.push_back(i); }));
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  for (int i = 50; i < 100; ++i) EXPECT_TRUE(Post([&order, i] { order.push_back(i); }));
  EXPECT_TRUE(pool_->Stop(true));
  std::vector<int> expected(100);
  for (int i = 0; i < 100; ++i) expected[static_cast<std::size_t>(i)] = i;
  EXPECT_EQ(order, expected);
}

TEST_F(ThreadPool, ANullTaskIsRefused) {
  EXPECT_FALSE(pool_->PostTask(nullptr));
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_FALSE(pool_->PostTask(nullptr));
  EXPECT_EQ(pool_->QueuedCount(), 0U);
}

TEST_F(ThreadPool, ATaskIsDestroyedOnceAfterItRan) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(pool_->PostTask(new Task(
      [this] {
        EXPECT_EQ(destroyed_, 0);
        ++run_;
      },
      [this] {
        EXPECT_EQ(run_, 1);
        ++destroyed_;
      })));
  EXPECT_TRUE(pool_->Stop(true));
  EXPECT_EQ(run_, 1);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ThreadPool, ATaskThatThrowsIsLoggedAndItsThreadLives) {
  const LogCapture log;
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  std::thread::id before;
  std::thread::id after;
  EXPECT_TRUE(Post([&before] {
    before = std::this_thread::get_id();
    throw std::runtime_error("out of luck");
  }));
  EXPECT_TRUE(Post([] { throw 5; }));
  EXPECT_TRUE(Post([&after] { after = std::this_thread::get_id(); }));
  EXPECT_TRUE(pool_->Stop(true));
  EXPECT_EQ(before, after);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2U);
  for (const auto& line : lines) {
    EXPECT_EQ(line.level, 5);
    EXPECT_EQ(line.tag, "TolmBase");
  }
  EXPECT_NE(lines[0].text.find("out of luck"), std::string::npos);
}

TEST_F(ThreadPool, ATaskIsDestroyedUnlockedAndMayPostFromThere) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(pool_->PostTask(new Task([] {},
                                       [this] {
                                         EXPECT_EQ(pool_->ThreadCount(), 1U);
                                         EXPECT_TRUE(PostCounted());
                                       })));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(ThreadPool, TenThousandTasksOfManyThreadsAllRun) {
  constexpr int kThreads = 8;
  constexpr int kTasks = 1250;
  EXPECT_TRUE(pool_->Start(2, 10, 1));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < kTasks; ++i) EXPECT_TRUE(PostCounted());
    });
  }
  for (std::thread& thread : threads) thread.join();
  // Without a stop, which would wake everybody: no task may have been forgotten.
  EXPECT_TRUE(WaitFor([this] { return destroyed_ == kThreads * kTasks; }, std::chrono::seconds(40)));
  EXPECT_EQ(run_, kThreads * kTasks);
  EXPECT_LE(pool_->ThreadCount(), 10U);
}

TEST_F(ThreadPool, EachOfTenThousandSingleTasksWakesAThread) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  for (int i = 1; i <= 10'000; ++i) {
    ASSERT_TRUE(PostCounted());
    ASSERT_TRUE(WaitForRun(i)) << "task " << i << " was never taken";
  }
}

// ---------------------------------------------------------------------------------------- Stop

TEST_F(ThreadPool, StopFinishesRunningTasksAndDestroysQueuedOnesUnrun) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  std::atomic<int> finished{0};
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(Post([&] {
      gate_.Pass();
      ++finished;
    }));
  }
  EXPECT_TRUE(gate_.WaitForArrivals(2));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(PostCounted());
  std::thread opener([this] {
    EXPECT_TRUE(WaitFor([this] { return destroyed_ == 3; })) << "unrun tasks wait for the running ones";
    gate_.Open();
  });
  EXPECT_TRUE(pool_->Stop(false));
  EXPECT_EQ(finished, 2);
  EXPECT_EQ(run_, 0);
  EXPECT_EQ(destroyed_, 3);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  EXPECT_EQ(pool_->QueuedCount(), 0U);
  opener.join();
}

TEST_F(ThreadPool, DrainingStopRunsWhatIsQueued) {
  EXPECT_TRUE(pool_->Start(1, 2, 0));
  for (int i = 0; i < 500; ++i) EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(pool_->Stop(true));
  EXPECT_EQ(run_, 500);
  EXPECT_EQ(destroyed_, 500);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
}

TEST_F(ThreadPool, StopWithoutDrainCutsADrainShort) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  Block(1);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(PostCounted());
  std::thread draining([this] { EXPECT_TRUE(pool_->Stop(true)); });
  // Once a task is refused, the first stop is under way.
  EXPECT_TRUE(WaitFor([this] { return !Post([] {}); }));
  std::thread opener([this] {
    EXPECT_TRUE(WaitFor([this] { return destroyed_ >= 3; }));
    gate_.Open();
  });
  EXPECT_FALSE(pool_->Stop(false));
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  draining.join();
  opener.join();
  EXPECT_EQ(destroyed_, 3);
  EXPECT_EQ(run_, 0);
}

TEST_F(ThreadPool, ATaskPostedAfterStopIsDestroyedOnTheCallingThread) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(pool_->Stop(false));
  std::thread::id destroyer;
  EXPECT_FALSE(pool_->PostTask(
      new Task([this] { ++run_; }, [&destroyer] { destroyer = std::this_thread::get_id(); })));
  EXPECT_EQ(destroyer, std::this_thread::get_id());
  EXPECT_EQ(run_, 0);
  EXPECT_EQ(pool_->QueuedCount(), 0U);
}

TEST_F(ThreadPool, ATaskThatIsDestroyedUnrunMayPostAndIsRefused) {
  EXPECT_TRUE(pool_->PostTask(new Task([this] { ++run_; }, [this] { EXPECT_FALSE(PostCounted()); })));
  EXPECT_FALSE(pool_->Stop(false));
  EXPECT_EQ(run_, 0);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ThreadPool, StopOfAPoolThatWasNeverStartedDestroysWhatWasQueued) {
  for (const bool drain : {false, true}) {
    CMessageLoopDyThreadPool pool;
    destroyed_ = 0;
    EXPECT_TRUE(pool.PostTask(new Task([this] { ++run_; }, [this] { ++destroyed_; })));
    EXPECT_FALSE(pool.Stop(drain));
    EXPECT_EQ(destroyed_, 1);
    EXPECT_EQ(run_, 0);
    EXPECT_FALSE(pool.PostTask(new Task([] {})));
  }
}

TEST_F(ThreadPool, ASecondStopSaysFalse) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  EXPECT_TRUE(pool_->Stop(false));
  EXPECT_FALSE(pool_->Stop(false));
  EXPECT_FALSE(pool_->Stop(true));
}

TEST_F(ThreadPool, AStoppedPoolCanBeStartedAgain) {
  for (int round = 1; round <= 20; ++round) {
    EXPECT_TRUE(pool_->Start(2, 4, 0));
    EXPECT_TRUE(PostCounted());
    EXPECT_TRUE(pool_->Stop(true));
    EXPECT_EQ(run_, round);
  }
}

TEST_F(ThreadPool, ConcurrentStopsAllReturnWhenTheThreadsAreGone) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  std::atomic<int> finished{0};
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(Post([&] {
      gate_.Pass();
      ++finished;
    }));
  }
  EXPECT_TRUE(gate_.WaitForArrivals(2));
  std::atomic<int> said_true{0};
  std::atomic<int> about_to_stop{0};
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 4; ++i) {
    stoppers.emplace_back([&] {
      ++about_to_stop;
      if (pool_->Stop(false)) ++said_true;
      EXPECT_EQ(finished, 2);
      EXPECT_EQ(pool_->ThreadCount(), 0U);
    });
  }
  EXPECT_TRUE(WaitFor([&] { return about_to_stop == 4 && !Post([] {}); }));
  gate_.Open();
  for (std::thread& stopper : stoppers) stopper.join();
  EXPECT_EQ(said_true, 1);
}

TEST_F(ThreadPool, ThePoolMayBeDestroyedWhileItsTasksRun) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  std::atomic<bool> finished{false};
  EXPECT_TRUE(Post([&] {
    gate_.Pass();
    finished = true;
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_TRUE(PostCounted());
  std::thread opener([this] {
    EXPECT_TRUE(WaitFor([this] { return destroyed_ == 1; }));
    gate_.Open();
  });
  pool_.reset();
  EXPECT_TRUE(finished);
  EXPECT_EQ(run_, 0);
  opener.join();
}

// -------------------------------------------------------------------------------------- Reopen

TEST_F(ThreadPool, AReopenedPoolQueuesForTheNextStart) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(pool_->Stop(false));
  EXPECT_FALSE(PostCounted());
  pool_->Reopen();
  EXPECT_TRUE(PostCounted());
  EXPECT_EQ(pool_->QueuedCount(), 1U);
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(WaitForRun(1));
}

TEST_F(ThreadPool, ReopenOfANewOrRunningPoolHasNoEffect) {
  EXPECT_TRUE(PostCounted());
  pool_->Reopen();
  EXPECT_EQ(pool_->QueuedCount(), 1U);
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  pool_->Reopen();
  EXPECT_FALSE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(WaitForRun(2));
  EXPECT_TRUE(pool_->Stop(true));
}

TEST_F(ThreadPool, AReopenedPoolThatIsStoppedDestroysWhatItQueued) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(pool_->Stop(false));
  pool_->Reopen();
  EXPECT_TRUE(PostCounted());
  EXPECT_FALSE(pool_->Stop(true));
  EXPECT_EQ(destroyed_, 1);
  EXPECT_EQ(run_, 0);
}

// --------------------------------------------------------------------- Stop from a task of its own

TEST_F(ThreadPool, StopFromOwnTaskReturnsAndThePoolCanStartAgain) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  EXPECT_TRUE(Post([this] {
    EXPECT_TRUE(pool_->Stop(false));
    EXPECT_FALSE(PostCounted());
    run_ = 100;
    gate_.Pass();
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_EQ(run_, 100);
  EXPECT_EQ(pool_->ThreadCount(), 1U) << "the one that stopped, and still runs its task";
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(WaitForRun(101));
  EXPECT_EQ(pool_->ThreadCount(), 3U);
  gate_.Open();
  EXPECT_TRUE(WaitFor([this] { return pool_->ThreadCount() == 2; }));
  EXPECT_TRUE(PostCounted());
  EXPECT_TRUE(WaitForRun(102));
}

TEST_F(ThreadPool, StopFromOwnTaskWaitsForTheOtherTasks) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  std::atomic<bool> other_finished{false};
  std::atomic<bool> other_was_finished{false};
  EXPECT_TRUE(Post([&] {
    gate_.Pass();
    other_finished = true;
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_TRUE(Post([&] {
    EXPECT_TRUE(pool_->Stop(false));
    other_was_finished = other_finished.load();
    ++run_;
  }));
  EXPECT_TRUE(WaitFor([this] { return !Post([] {}); }));
  EXPECT_EQ(run_, 0);
  gate_.Open();
  EXPECT_TRUE(WaitForRun(1));
  EXPECT_TRUE(other_was_finished);
}

TEST_F(ThreadPool, StopFromOutsideWaitsForTheTaskThatStoppedThePool) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  std::atomic<bool> finished{false};
  EXPECT_TRUE(Post([&] {
    EXPECT_TRUE(pool_->Stop(false));
    gate_.Pass();
    finished = true;
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  std::thread opener([this] { gate_.Open(); });
  EXPECT_FALSE(pool_->Stop(false));
  EXPECT_TRUE(finished);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  opener.join();
}

TEST_F(ThreadPool, DrainingStopFromTheOnlyThreadRunsTheRestBehindItsTask) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  Block(1);
  EXPECT_TRUE(Post([this] {
    EXPECT_TRUE(pool_->Stop(true));
    EXPECT_EQ(run_, 0);
  }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(PostCounted());
  gate_.Open();
  EXPECT_TRUE(WaitForRun(3));
  EXPECT_FALSE(pool_->Stop(true));
  EXPECT_EQ(destroyed_, 3);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
}

TEST_F(ThreadPool, ALaterStartTakesOverTheRestOfADrain) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  Gate before;
  EXPECT_TRUE(Post([&] {
    before.Pass();
    EXPECT_TRUE(pool_->Stop(true));
    gate_.Pass();
  }));
  EXPECT_TRUE(before.WaitForArrivals(1));
  EXPECT_TRUE(PostCounted());
  before.Open();
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  EXPECT_EQ(pool_->QueuedCount(), 1U);
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(WaitForRun(1));
  gate_.Open();
  EXPECT_TRUE(pool_->Stop(false));
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ThreadPool, StopsFromSeveralOwnTasksDoNotWaitForEachOther) {
  EXPECT_TRUE(pool_->Start(4, 4, 0));
  std::atomic<int> said_true{0};
  Gate together;
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(Post([&] {
      together.Pass();
      if (pool_->Stop(false)) ++said_true;
      ++run_;
    }));
  }
  EXPECT_TRUE(together.WaitForArrivals(4));
  together.Open();
  EXPECT_TRUE(WaitForRun(4));
  EXPECT_EQ(said_true, 1);
  pool_->Stop(false);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
}

TEST_F(ThreadPool, StopFromOwnTaskWhileAnotherStopWaitsForItReturns) {
  EXPECT_TRUE(pool_->Start(1, 1, 0));
  EXPECT_TRUE(Post([this] {
    gate_.Pass();
    EXPECT_FALSE(pool_->Stop(false));
    ++run_;
  }));
  EXPECT_TRUE(gate_.WaitForArrivals(1));
  std::thread outside([this] { EXPECT_TRUE(pool_->Stop(false)); });
  EXPECT_TRUE(WaitFor([this] { return !Post([] {}); }));
  gate_.Open();
  outside.join();
  EXPECT_EQ(run_, 1);
}

TEST_F(ThreadPool, OwnTaskMayStopAndStartThePoolOverAndOver) {
  constexpr int kRounds = 50;
  EXPECT_TRUE(pool_->Start(1, 3, 0));
  std::function<void()> again = [&] {
    EXPECT_TRUE(pool_->Stop(false));
    EXPECT_TRUE(pool_->Start(1, 3, 0));
    if (++run_ < kRounds) {
      EXPECT_TRUE(Post(again));
    }
  };
  EXPECT_TRUE(Post(again));
  EXPECT_TRUE(WaitForRun(kRounds));
  EXPECT_TRUE(pool_->Stop(true));
  EXPECT_EQ(pool_->ThreadCount(), 0U);
}

TEST_F(ThreadPool, OwnTaskMayDestroyThePool) {
  EXPECT_TRUE(pool_->Start(2, 2, 0));
  EXPECT_TRUE(pool_->PostTask(new Task(
      [this] {
        gate_.Pass();
        pool_.reset();
      },
      [this] { ++destroyed_; })));
  gate_.Open();
  EXPECT_TRUE(WaitFor([this] { return destroyed_ == 1; }));
  EXPECT_EQ(pool_, nullptr);
}

// --------------------------------------------------------------------------------- All at once

TEST_F(ThreadPool, NoTaskIsLostOrRunTwiceWhilePoolsStopAndStart) {
  constexpr int kPosters = 4;
  std::atomic<bool> done{false};
  std::atomic<int> accepted{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kPosters; ++i) {
    threads.emplace_back([&] {
      while (!done) {
        ++(PostCounted() ? accepted : refused);
        std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    pool_->Start(round % 3, 4, round % 2);
    if (round % 5 == 0) Post([this] { pool_->Stop(true); });
    if (round % 7 == 0) pool_->Reopen();
    pool_->Stop(round % 4 != 0);
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  pool_->Stop(false);
  EXPECT_EQ(destroyed_, accepted + refused);
  EXPECT_LE(run_, accepted);
  EXPECT_EQ(pool_->ThreadCount(), 0U);
  EXPECT_EQ(pool_->QueuedCount(), 0U);
}

}  // namespace
