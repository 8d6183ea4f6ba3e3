#include "EventLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

namespace guard {
namespace {

using testing::ElementsAre;

TEST(EventLoop, RunsWhatIsPostedInOrderOnItsThread) {
  EventLoop loop;
  std::vector<int> ran;
  const auto own = std::this_thread::get_id();
  std::thread other([&] {
    for (int n = 0; n < 1000; ++n) {
      loop.Post([&, n] {
        EXPECT_EQ(std::this_thread::get_id(), own);
        ran.push_back(n);
      });
    }
    loop.Post([&] { loop.Stop(); });
  });
  loop.Run();
  other.join();
  ASSERT_EQ(ran.size(), 1000u);
  for (int n = 0; n < 1000; ++n) EXPECT_EQ(ran[static_cast<std::size_t>(n)], n);
}

TEST(EventLoop, TimersFireInTheOrderOfTheirTimesAndNotBefore) {
  EventLoop loop;
  std::vector<int> fired;
  const TimePoint begin = loop.Now();
  loop.After(Milliseconds(30), [&] {
    fired.push_back(3);
    loop.Stop();
  });
  loop.After(Milliseconds(10), [&] { fired.push_back(1); });
  loop.After(Milliseconds(10), [&] { fired.push_back(2); });
  loop.After(Milliseconds(0), [&] { fired.push_back(0); });
  loop.Run();
  EXPECT_THAT(fired, ElementsAre(0, 1, 2, 3));
  EXPECT_GE(loop.Now() - begin, Milliseconds(30));
}

TEST(EventLoop, ATimerThatIsCancelledDoesNotFire) {
  EventLoop loop;
  bool fired = false;
  const auto timer = loop.After(Milliseconds(1), [&] { fired = true; });
  EXPECT_NE(timer, 0u);
  loop.Cancel(timer);
  loop.Cancel(timer);
  loop.Cancel(0);
  loop.After(Milliseconds(5), [&] { loop.Stop(); });
  loop.Run();
  EXPECT_FALSE(fired);
}

TEST(EventLoop, ATimerMayCancelOneThatIsDueAtTheSameTimeAndSetAnother) {
  EventLoop loop;
  bool fired = false;
  Scheduler::TimerId second = 0;
  loop.After(Milliseconds(10'000), [&] { loop.Stop(); });  // in case that the one below is not set
  loop.After(Milliseconds(0), [&] {
    loop.Cancel(second);
    loop.After(Milliseconds(1), [&] { loop.Stop(); });
  });
  second = loop.After(Milliseconds(0), [&] { fired = true; });
  loop.Run();
  EXPECT_FALSE(fired);
}

TEST(EventLoop, ATaskThatThrowsIsLoggedAndTheOthersRun) {
  tolm::test::LogCapture capture;
  EventLoop loop;
  loop.Post([] { throw std::runtime_error("a bad day"); });
  loop.Post([] { throw 5; });
  loop.Post([&] { loop.Stop(); });
  loop.Run();
  ASSERT_EQ(capture.Lines().size(), 2u);
  EXPECT_EQ(capture.Lines()[0].text, "a task failed: a bad day");
}

TEST(EventLoop, StopMayComeFirst) {
  EventLoop loop;
  loop.Post([] { FAIL() << "stopped before"; });
  loop.Stop();
  loop.Run();
}

}  // namespace
}  // namespace guard
