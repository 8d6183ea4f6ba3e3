// What a pool does when the system makes no more threads: stacks larger than the address space see to that.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>

#include "TolmBase/MessageLoopDyThreadPool.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace {

using Tolm::Base::CMessageLoopDyThreadPool;
using Tolm::Base::CTask;
using tolm::test::LogCapture;
using tolm::test::WaitFor;

/// While it lives, no thread can be made.
class NoThreads {
 public:
  NoThreads() {
    pthread_attr_t attributes;
    EXPECT_EQ(::pthread_getattr_default_np(&attributes), 0);
    EXPECT_EQ(::pthread_attr_getstacksize(&attributes, &stack_size_), 0);
    EXPECT_EQ(::pthread_attr_setstacksize(&attributes, std::size_t{1} << 47), 0);
    EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
    ::pthread_attr_destroy(&attributes);
  }
  ~NoThreads() {
    pthread_attr_t attributes;
    ::pthread_getattr_default_np(&attributes);
    ::pthread_attr_setstacksize(&attributes, stack_size_);
    ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  std::size_t stack_size_ = 0;
};

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
