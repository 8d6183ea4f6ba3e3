// What a pool does when the system makes no more threads.

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>

#include "NoThreads.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace {

using Tolm::Base::CMessageLoopDyThreadPool;
using Tolm::Base::CTask;
using tolm::test::LogCapture;
using tolm::test::NoThreads;
using tolm::test::WaitFor;

class ThreadShortage : public testing::Test {
 protected:
  class Counted : public CTask {
   public:
    explicit Counted(ThreadShortage& test) : test_(test) {}
    ~Counted() override { ++test_.destroyed_; }
    void Run() override {
      WaitFor([this] { return !test_.hold_; });
      ++test_.run_;
    }

   private:
    ThreadShortage& test_;
  };

  bool Post() { return pool_.PostTask(new Counted(*this)); }
  std::size_t Logged(int level) const {
    std::size_t count = 0;
    for (const auto& line : log_.Lines()) count += line.level == level && line.tag == "TolmBase" ? 1 : 0;
    return count;
  }

  LogCapture log_;
  std::atomic<bool> hold_{false};
  std::atomic<int> run_{0};
  std::atomic<int> destroyed_{0};
  CMessageLoopDyThreadPool pool_;
};

TEST_F(ThreadShortage, StartFailsAndKeepsTheQueueWhenNotEvenAFirstThreadCanBeMade) {
  EXPECT_TRUE(Post());
  {
    const NoThreads none;
    EXPECT_FALSE(pool_.Start(2, 4, 0));
    EXPECT_TRUE(Post()) << "it still queues for a later start";
  }
  EXPECT_EQ(pool_.QueuedCount(), 2U);
  EXPECT_EQ(pool_.ThreadCount(), 0U);
  EXPECT_EQ(Logged(4), 1U);
  EXPECT_TRUE(pool_.Start(2, 4, 0));
  EXPECT_TRUE(WaitFor([this] { return run_ == 2; }));
}

TEST_F(ThreadShortage, OneThreadRunsEverythingWhenNoOtherCanBeMade) {
  hold_ = true;
  EXPECT_TRUE(pool_.Start(1, 4, 0));
  {
    const NoThreads none;
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(Post());
    EXPECT_TRUE(WaitFor([this] { return Logged(4) == 1U; })) << "the thread that took the first found more";
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(Post());
    EXPECT_EQ(pool_.ThreadCount(), 1U);
    EXPECT_EQ(Logged(4), 1U) << "once for the whole shortage";
  }
  EXPECT_TRUE(Post());
  EXPECT_GE(pool_.ThreadCount(), 2U) << "when the shortage is over the pool grows again";
  hold_ = false;
  EXPECT_TRUE(WaitFor([this] { return run_ == 11; }));
}

TEST_F(ThreadShortage, ATaskIsRefusedWhenThereIsNoThreadAtAll) {
  EXPECT_TRUE(pool_.Start(0, 4, 0));
  {
    const NoThreads none;
    EXPECT_FALSE(Post());
    EXPECT_EQ(destroyed_, 1);
    EXPECT_EQ(Logged(5), 1U);
  }
  EXPECT_TRUE(Post());
  EXPECT_TRUE(WaitFor([this] { return run_ == 1; }));
}

}  // namespace
