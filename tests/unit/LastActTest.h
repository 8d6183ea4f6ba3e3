#pragma once

// Two pools, and tasks of the first whose last act posts to the second.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "PoolTasks.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "TolmBase/TaskThread.h"
#include "support/Wait.h"

namespace tolm::test {

class LastActTest : public testing::Test {
 protected:
  using Pool = Tolm::Base::CMessageLoopDyThreadPool;
  using Run = std::function<void()>;
  using CLastAct = Tolm::Base::CTaskThread::CLastAct;

  ~LastActTest() override {
    gate_.Open();
    home_.reset();
    target_.reset();
  }

  /// Posts a task that counts itself when it is destroyed.
  bool Post(Pool& pool, Run run) {
    return pool.PostTask(new FunctionTask(std::move(run), [this] { ++destroyed_; }));
  }
  /// The same as the last act of the calling task.
  bool PostLast(Pool& pool, Run run) {
    const CLastAct last_act;
    return Post(pool, std::move(run));
  }
  /// A task for home whose last act posts `run` to the target.
  bool Send(Run run) {
    return Post(*home_, [this, run = std::move(run)] { EXPECT_TRUE(PostLast(*target_, run)); });
  }
  /// A thread of home's waits at the gate in a task of the target's, which then does `behind`.
  void SendToGate(int arrivals, Run behind = {}) {
    ASSERT_TRUE(Send([this, behind = std::move(behind)] {
      gate_.Pass();
      if (behind) behind();
    }));
    ASSERT_TRUE(gate_.WaitForArrivals(arrivals));
  }
  bool PostCounted(Pool& pool) {
    return Post(pool, [this] { ++run_; });
  }
  bool WaitForRun(int count) {
    return WaitFor([&] { return run_ >= count; });
  }
  /// Whether a stop of the pool has begun.
  bool WaitUntilRefused(Pool& pool) {
    return WaitFor([&] { return !pool.PostTask(new FunctionTask([] {})); });
  }

  std::atomic<int> run_{0};
  std::atomic<int> destroyed_{0};
  TaskGate gate_;
  std::unique_ptr<Pool> home_ = std::make_unique<Pool>("Home");
  std::unique_ptr<Pool> target_ = std::make_unique<Pool>("Target");
};

}  // namespace tolm::test
