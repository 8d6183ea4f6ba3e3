// Threads that go from pool to pool, very many times.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include "PoolTasks.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "TolmBase/TaskThread.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using Tolm::Base::CMessageLoopDyThreadPool;
using Tolm::Base::CTaskThread;

/// A pool that knows how many of its tasks run at a time.
struct Watched {
  CMessageLoopDyThreadPool pool{"Watched"};
  std::atomic<int> inside{0};
  std::atomic<int> most{0};

  void Enter() {
    const int now = ++inside;
    for (int before = most; before < now && !most.compare_exchange_weak(before, now);) {
    }
  }
  void Leave() { --inside; }
};

class TaskThreadLoad : public testing::Test {
 protected:
  static constexpr std::size_t kPools = 3;

  ~TaskThreadLoad() override {
    for (Watched& one : pools_) one.pool.Stop(false);
  }

  /// Posts a task that posts the next one as its last act, until it has had `hops` successors; which pool is
  /// next, and whether something else is posted before, is decided by the digits of `choice`.
  bool PostChain(unsigned choice, int hops) {
    Watched& here = pools_[choice % kPools];
    ++posted_;
    const bool accepted = here.pool.PostTask(new FunctionTask(
        [this, &here, choice, hops] {
          here.Enter();
          if (choice % 5 == 0) std::this_thread::yield();
          here.Leave();
          ++run_;
          if (hops == 0) return;
          if (choice % 7 == 0) PostChain(choice / 3 + 1, 0);
          const CTaskThread::CLastAct last_act;
          PostChain(choice * 1664525u + 1013904223u, hops - 1);
        },
        [this] { ++destroyed_; }));
    if (!accepted) ++refused_;
    return accepted;
  }

  std::array<Watched, kPools> pools_;
  std::atomic<int> run_{0};
  std::atomic<int> destroyed_{0};
  std::atomic<int> posted_{0};  // counted before the task that posts is destroyed
  std::atomic<int> refused_{0};
};

TEST_F(TaskThreadLoad, EveryTaskIsRunAndNoPoolRunsMoreAtATimeThanItMay) {
  constexpr int kPosters = 4;
  constexpr int kChains = 50;  // of each
  constexpr int kHops = 500;
  for (std::size_t i = 0; i < kPools; ++i) {
    const int most = static_cast<int>(i) + 1;
    EXPECT_TRUE(pools_[i].pool.Start(most / 2, most, 0));
  }
  std::vector<std::thread> posters;
  for (unsigned poster = 0; poster < kPosters; ++poster) {
    posters.emplace_back([this, poster] {
      for (unsigned i = 0; i < kChains; ++i) EXPECT_TRUE(PostChain(poster * 7919u + i * 104729u, kHops));
    });
  }
  for (std::thread& poster : posters) poster.join();
  const auto all_are_gone = [&] {
    const int destroyed = destroyed_;
    return destroyed == posted_;
  };
  EXPECT_TRUE(WaitFor(all_are_gone, std::chrono::seconds(120))) << destroyed_ << " of " << posted_;
  EXPECT_GE(posted_, kPosters * kChains * (kHops + 1));
  EXPECT_EQ(run_, posted_);
  EXPECT_EQ(refused_, 0);
  for (std::size_t i = 0; i < kPools; ++i) EXPECT_LE(pools_[i].most, static_cast<int>(i) + 1);
  for (Watched& one : pools_) EXPECT_TRUE(one.pool.Stop(true));
}

TEST_F(TaskThreadLoad, NoTaskIsLostOrRunTwiceWhilePoolsStopAndStart) {
  constexpr unsigned kPosters = 3;
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (unsigned poster = 0; poster < kPosters; ++poster) {
    threads.emplace_back([&, poster] {
      for (unsigned i = poster; !done; i += 104729u) {
        PostChain(i, 20);
        std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 300; ++round) {
    for (std::size_t i = 0; i < kPools; ++i)
      pools_[i].pool.Start(round % 2, static_cast<int>(i) + 1, round % 2);
    Watched& one = pools_[static_cast<std::size_t>(round) % kPools];
    if (round % 5 == 0) {
      one.pool.PostTask(new FunctionTask([&one] {
        const CTaskThread::CLastAct last_act;
        one.pool.PostTask(new FunctionTask([&one] { one.pool.Stop(true); }));
      }));
    }
    one.pool.Stop(round % 4 != 0);
    if (round % 7 == 0) one.pool.Reopen();
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  for (Watched& one : pools_) one.pool.Stop(false);
  // What was on its way from one pool to the other found that one stopped.
  for (Watched& one : pools_) {
    EXPECT_FALSE(one.pool.Stop(false));
    EXPECT_EQ(one.pool.ThreadCount(), 0U);
    EXPECT_EQ(one.pool.QueuedCount(), 0U);
  }
  EXPECT_EQ(destroyed_, posted_);
  EXPECT_LE(run_, posted_ - refused_);
}

}  // namespace
}  // namespace tolm::test
