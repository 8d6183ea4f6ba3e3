// A pool that lacks memory: each task is run, or destroyed and said to be.

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "ScarceMemory.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "unit/PoolTasks.h"

namespace tolm::test {
namespace {

using Tolm::Base::CMessageLoopDyThreadPool;

// Tasks that are made before memory is short, more than a queue has places for at first.
class Batch {
 public:
  static constexpr int kTasks = 200;

  Batch() {
    for (int i = 0; i < kTasks; ++i) {
      tasks_.push_back(std::make_unique<FunctionTask>([this] { ++run; }, [this] { ++destroyed; }));
    }
  }
  /// How many the pool took; the others are destroyed by it.
  int PostHalf(CMessageLoopDyThreadPool& pool) {
    int taken = 0;
    for (int i = 0; i < kTasks / 2; ++i) taken += pool.PostTask(tasks_[next_++].release()) ? 1 : 0;
    return taken;
  }

  std::atomic<int> run{0};
  std::atomic<int> destroyed{0};

 private:
  std::vector<std::unique_ptr<FunctionTask>> tasks_;
  std::size_t next_ = 0;
};

TEST(PoolShortage, EachTaskIsRunOrRefused) {
  const int trials = RefuseEach([](std::uint64_t number) {
    Batch batch;
    CMessageLoopDyThreadPool pool;
    int taken = 0;
    bool started = false;
    bool stopped = false;
    std::uint64_t refused = 0;
    {
      const ScarceMemory scarce(number);
      taken += batch.PostHalf(pool);
      started = pool.Start(2, 4, 0);
      taken += batch.PostHalf(pool);
      stopped = pool.Stop(true);
      refused = ScarceMemory::Refused();
    }
    EXPECT_EQ(stopped, started) << number;
    EXPECT_EQ(batch.run, started ? taken : 0) << number;
    EXPECT_EQ(batch.destroyed, Batch::kTasks) << number;
    return refused;
  });
  EXPECT_GE(trials, 5);
}

class StopWithoutMemory : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pool_.Start(1, 1, 0));
    ASSERT_TRUE(pool_.PostTask(new FunctionTask([this] { gate_.Pass(); })));
    ASSERT_TRUE(gate_.WaitForArrivals(1));
  }
  bool Stop(bool drain) {
    const ScarceMemory none(1, ScarceMemory::Of::kAllThreads, ScarceMemory::Refuse::kAllBehind);
    if (drain) gate_.Open();
    return pool_.Stop(drain);
  }

  TaskGate gate_;
  Batch batch_;
  CMessageLoopDyThreadPool pool_;
};

TEST_F(StopWithoutMemory, RunsWhatIsQueued) {
  const int taken = batch_.PostHalf(pool_);
  EXPECT_TRUE(Stop(true));
  EXPECT_EQ(batch_.run, taken);
}

TEST_F(StopWithoutMemory, DestroysWhatIsQueued) {
  const int taken = batch_.PostHalf(pool_);
  ASSERT_TRUE(pool_.PostTask(new FunctionTask([] {}, [this] { gate_.Open(); })));
  EXPECT_TRUE(Stop(false));
  EXPECT_EQ(batch_.run, 0);
  EXPECT_EQ(batch_.destroyed, taken);
}

}  // namespace
}  // namespace tolm::test
