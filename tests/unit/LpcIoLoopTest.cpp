#include "wire/IoLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Wait.h"

namespace lpc::wire {
namespace {

using tolm::test::WaitFor;
using Clock = IoLoop::Clock;

class Call final : public Tolm::Base::CTask {
 public:
  explicit Call(std::function<void()> call) : call_(std::move(call)) {}
  void Run() override { call_(); }

 private:
  const std::function<void()> call_;
};

std::unique_ptr<Tolm::Base::CTask> Do(std::function<void()> call) {
  return std::make_unique<Call>(std::move(call));
}

class LpcIoLoop : public testing::Test {
 protected:
  std::shared_ptr<IoLoop> Make(const Options& options = {}, IoLoop::Housekeeping housekeeping = {}) {
    if (!housekeeping) housekeeping = [](Clock::time_point) { return Clock::time_point::max(); };
    return std::make_shared<IoLoop>(transport_->CreatePoller(), options, "LoopTest", std::move(housekeeping));
  }

  // Lets threads through when the test is over, whatever became of it.
  void Block() {
    std::unique_lock lock(mutex_);
    ++blocked_;
    opened_.wait_for(lock, std::chrono::seconds(30), [this] { return open_; });
    --blocked_;
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  int Blocked() {
    const std::lock_guard lock(mutex_);
    return blocked_;
  }

  const std::unique_ptr<os::LocalTransport> transport_ = os::CreateMemoryTransport();
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
  int blocked_ = 0;
};

TEST_F(LpcIoLoop, RunsWorkOnItsThreads) {
  const auto loop = Make();
  ASSERT_TRUE(loop->Start());
  EXPECT_FALSE(loop->IsOwnThread());
  std::atomic<bool> own{false};
  loop->Post(Do([&] { own = loop->IsOwnThread(); }));
  EXPECT_TRUE(WaitFor([&] { return own.load(); }));
  loop->Stop();
}

TEST_F(LpcIoLoop, HasAsManyThreadsAsWasAskedAndAtLeastTwo) {
  for (const int threads : {0, 1, 2, 5}) {
    Options options;
    options.min_threads = threads;
    const auto loop = Make(options);
    ASSERT_TRUE(loop->Start());
    EXPECT_EQ(loop->ThreadCount(), static_cast<std::size_t>(std::max(2, threads)));
    loop->Stop();
    EXPECT_EQ(loop->ThreadCount(), 0u);
  }
}

TEST_F(LpcIoLoop, ThreadsAreAddedForWorkThatBlocksAndGoWhenItIsDone) {
  const auto loop = Make();
  ASSERT_TRUE(loop->Start());
  WorkList batch;
  for (int i = 0; i < 20; ++i) batch.push_back(Do([this] { Block(); }));
  loop->Post(batch);
  EXPECT_TRUE(batch.empty());
  EXPECT_TRUE(WaitFor([this] { return Blocked() == 20; })) << Blocked();
  EXPECT_EQ(loop->ThreadCount(), 21u) << "one is left to listen";
  Open();
  EXPECT_TRUE(WaitFor([&] { return loop->ThreadCount() <= 9; })) << loop->ThreadCount();
  loop->Stop();
}

TEST_F(LpcIoLoop, NeverMoreThreadsThanAllowedAndTheLastOneListens) {
  Options options;
  options.max_threads = 4;
  const auto loop = Make(options);
  ASSERT_TRUE(loop->Start());
  std::atomic<int> run{0};
  for (int i = 0; i < 10; ++i) {
    loop->Post(Do([this, &run] {
      Block();
      ++run;
    }));
  }
  EXPECT_TRUE(WaitFor([this] { return Blocked() == 3; }));
  // The fourth serves a listener meanwhile.
  struct Count final : IoHandler {
    void OnReady(bool, bool) override { ++ready; }
    std::atomic<int> ready{0};
  };
  const auto handler = std::make_shared<Count>();
  auto listener = transport_->Listen("name");
  ASSERT_TRUE(listener.value);
  const std::uint64_t token = loop->Register(handler);
  ASSERT_TRUE(loop->Arm(*listener.value, token, os::Poller::kRead));
  const auto stream = transport_->Connect("name");
  EXPECT_TRUE(WaitFor([&] { return handler->ready == 1; }));
  EXPECT_EQ(Blocked(), 3);
  EXPECT_EQ(loop->ThreadCount(), 4u);
  Open();
  EXPECT_TRUE(WaitFor([&] { return run == 10; }));
  loop->Unregister(*listener.value, token);
  loop->Stop();
}

TEST_F(LpcIoLoop, AReadinessGoesToTheHandlerOnceForEachArm) {
  struct Count final : IoHandler {
    void OnReady(bool readable, bool) override { ready += readable ? 1 : 0; }
    std::atomic<int> ready{0};
  };
  const auto loop = Make();
  ASSERT_TRUE(loop->Start());
  auto handler = std::make_shared<Count>();
  auto listener = transport_->Listen("name");
  const std::uint64_t token = loop->Register(handler);
  ASSERT_TRUE(loop->Arm(*listener.value, token, os::Poller::kRead));
  const auto one = transport_->Connect("name");
  ASSERT_TRUE(WaitFor([&] { return handler->ready == 1; }));
  const auto two = transport_->Connect("name");
  // A round trip through every thread: nobody has looked at it again.
  std::atomic<int> passed{0};
  for (int i = 0; i < 50; ++i) loop->Post(Do([&] { ++passed; }));
  ASSERT_TRUE(WaitFor([&] { return passed == 50; }));
  EXPECT_EQ(handler->ready, 1);
  ASSERT_TRUE(loop->Arm(*listener.value, token, os::Poller::kRead));
  EXPECT_TRUE(WaitFor([&] { return handler->ready == 2; }));
  // One that is gone is not called.
  handler.reset();
  ASSERT_TRUE(loop->Arm(*listener.value, token, os::Poller::kRead));
  loop->Unregister(*listener.value, token);
  loop->Stop();
}

TEST_F(LpcIoLoop, WorkThatThrowsIsLoggedAndTheThreadGoesOn) {
  tolm::test::LogCapture log(5);
  Options options;
  options.max_threads = 2;  // nobody helps one that is slow, so who goes on are these
  const auto loop = Make(options);
  ASSERT_TRUE(loop->Start());
  std::atomic<bool> run{false};
  loop->Post(Do([] { throw std::runtime_error("thrown by a test"); }));
  loop->Post(Do([] { throw 1; }));
  loop->Post(Do([&] { run = true; }));
  EXPECT_TRUE(WaitFor([&] { return run.load(); }));
  EXPECT_TRUE(WaitFor([&] { return log.Lines().size() == 2; }));
  EXPECT_EQ(loop->ThreadCount(), 2u);
  loop->Stop();
}

TEST_F(LpcIoLoop, HousekeepingRunsWhenItIsDueAndAgainWhenItSays) {
  std::atomic<int> runs{0};
  const auto loop = Make({}, [&](Clock::time_point now) {
    return ++runs < 3 ? now + std::chrono::milliseconds(1) : Clock::time_point::max();
  });
  ASSERT_TRUE(loop->Start());
  loop->RunHousekeepingBy(Clock::now() + std::chrono::milliseconds(5));
  EXPECT_TRUE(WaitFor([&] { return runs == 3; }));
  loop->RunHousekeepingBy(Clock::now());
  EXPECT_TRUE(WaitFor([&] { return runs == 4; }));
  loop->Stop();
}

TEST_F(LpcIoLoop, HousekeepingRunsWhileWorkBlocks) {
  std::atomic<int> runs{0};
  const auto loop = Make({}, [&](Clock::time_point) {
    ++runs;
    return Clock::time_point::max();
  });
  ASSERT_TRUE(loop->Start());
  loop->RunHousekeepingBy(Clock::now() + std::chrono::milliseconds(20));
  for (int i = 0; i < 5; ++i) loop->Post(Do([this] { Block(); }));
  EXPECT_TRUE(WaitFor([&] { return runs >= 1; }));
  Open();
  loop->Stop();
}

TEST_F(LpcIoLoop, AnEarlierDeadlineIsNotMissed) {
  std::atomic<int> runs{0};
  const auto loop = Make({}, [&](Clock::time_point) {
    ++runs;
    return Clock::time_point::max();
  });
  ASSERT_TRUE(loop->Start());
  loop->RunHousekeepingBy(Clock::now() + std::chrono::hours(1));
  loop->RunHousekeepingBy(Clock::now() + std::chrono::milliseconds(1));
  EXPECT_TRUE(WaitFor([&] { return runs == 1; }));
  loop->Stop();
}

TEST_F(LpcIoLoop, StopDestroysWhatIsQueuedAndWaitsForWhatRuns) {
  Options options;
  options.max_threads = 2;
  const auto loop = Make(options);
  ASSERT_TRUE(loop->Start());
  std::atomic<bool> finished{false};
  loop->Post(Do([&] {
    Block();
    finished = true;
  }));
  ASSERT_TRUE(WaitFor([this] { return Blocked() == 1; }));
  const auto witness = std::make_shared<int>(0);
  std::atomic<int> run{0};
  for (int i = 0; i < 10; ++i) loop->Post(Do([witness, &run] { ++run; }));
  std::thread stops([&] { loop->Stop(); });
  EXPECT_TRUE(WaitFor([&] { return witness.use_count() == 1; })) << "the queued ones are destroyed first";
  EXPECT_FALSE(finished);
  Open();
  stops.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ(run, 0);
  loop->Post(Do([witness, &run] { ++run; }));
  EXPECT_EQ(witness.use_count(), 1) << "nothing is taken any more";
  loop->Stop();
}

TEST_F(LpcIoLoop, AStartThatAStopHasOvertakenMakesNoThreads) {
  const auto loop = Make();
  loop->Stop();
  EXPECT_FALSE(loop->Start());
  EXPECT_EQ(loop->ThreadCount(), 0u);
}

TEST_F(LpcIoLoop, StopFromInsideDoesNotWaitForItself) {
  const auto loop = Make();
  ASSERT_TRUE(loop->Start());
  std::atomic<bool> returned{false};
  loop->Post(Do([&] {
    loop->Stop();
    returned = true;
  }));
  EXPECT_TRUE(WaitFor([&] { return returned.load(); }));
  loop->Stop();
  EXPECT_EQ(loop->ThreadCount(), 0u);
}

TEST_F(LpcIoLoop, StopFromInsideAndOutsideAtOnce) {
  for (int round = 0; round < 50; ++round) {
    const auto loop = Make();
    ASSERT_TRUE(loop->Start());
    std::atomic<int> inside{0};
    std::atomic<int> returned{0};
    for (int i = 0; i < 2; ++i) {
      loop->Post(Do([&] {
        ++inside;
        loop->Stop();
        ++returned;
      }));
    }
    ASSERT_TRUE(WaitFor([&] { return inside >= 1; }));
    std::thread other([&] { loop->Stop(); });
    loop->Stop();
    other.join();
    EXPECT_EQ(returned, inside);
  }
}

TEST_F(LpcIoLoop, MayBeGoneBeforeTheThreadThatStoppedIt) {
  auto loop = Make();
  ASSERT_TRUE(loop->Start());
  std::atomic<bool> returned{false};
  std::weak_ptr<IoLoop> weak = loop;
  loop->Post(Do([&, raw = loop.get()] {
    raw->Stop();
    Block();
    returned = true;
  }));
  ASSERT_TRUE(WaitFor([this] { return Blocked() == 1; }));
  loop.reset();
  EXPECT_FALSE(weak.expired()) << "its thread keeps it";
  Open();
  EXPECT_TRUE(WaitFor([&] { return returned && weak.expired(); }));
}

// Nothing else ever wakes this loop.
TEST(LpcIoLoopFlush, ComesWithoutAnythingElseHappening) {
  class Flushed final : public IoHandler {
   public:
    void OnReady(bool, bool) override {}
    void OnFlush() override { ++count; }
    std::atomic<int> count{0};
  };
  const auto loop = std::make_shared<IoLoop>(os::SystemTransport().CreatePoller(), Options{}, "LoopTest",
                                             [](Clock::time_point) { return Clock::time_point::max(); });
  if (!loop->CanFlushSoon()) GTEST_SKIP() << "this system's poller has no timer that is exact enough";
  ASSERT_TRUE(loop->Start());
  const auto handler = std::make_shared<Flushed>();
  for (int i = 1; i <= 20; ++i) {
    loop->FlushSoon(handler);
    EXPECT_TRUE(WaitFor([&] { return handler->count == i; })) << i;
  }
  loop->Stop();
}

}  // namespace
}  // namespace lpc::wire
