// The end of frames, asked for or not.

#include <atomic>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using Shutdown = SystemTest;

TEST_F(Shutdown, LetsEveryPluginCleanUpAndEnd) {
  StartFrame({"a", "b"});
  ChildProcess& a = StartPlugin("a");
  ChildProcess& b = StartPlugin("b");
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  for (const char* const id : {"a", "b"}) {
    EXPECT_TRUE(host_.WaitForLog(std::string("[/method:Uninit], uninit suceessfully, plugin_id[") + id));
  }
  EXPECT_TRUE(host_.WaitForLog("All LPC plugins have uninited finish"));
  for (ChildProcess* const plugin : {&a, &b}) {
    EXPECT_TRUE(plugin->WaitForLine("uninit"));
    EXPECT_EQ(plugin->WaitExit(), (Exit{0, false})) << plugin->Output();
  }
}

TEST_F(Shutdown, WithoutPluginsAndGuardTakesTheThreeSecondsThatAGuardHasForItsAnswer) {
  StartFrame({"a"});
  const auto began = Clock::now();
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  const auto took = Clock::now() - began;
  EXPECT_GE(took, 2900ms);
  EXPECT_LT(took, 2900ms + kAtOnce);
}

TEST_F(Shutdown, OfAFrameThatWasNeverStartedFails) {
  EXPECT_EQ(LaunchHost("stopping", {}).WaitForLine("uninit "), "uninit -8");
}

TEST_F(Shutdown, TwiceSucceedsTwice) {
  StartFrame({"a"});
  StartPlugin("a");
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
}

TEST_F(Shutdown, FailsTheCallsThatStillWait) {
  StartFrame({"a"});
  ChildProcess& a = StartPlugin("a", "plain");
  auto call = std::async(std::launch::async, [] { return Call(Request("/a/block"), 60s); });
  ASSERT_TRUE(a.WaitForLine("blocked"));
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  const Answer answer = call.get();
  EXPECT_FALSE(answer.came);
  EXPECT_EQ(answer.error, kPeerGone);
}

TEST_F(Shutdown, WhileManyCallIsCleanAndFailsTheirCalls) {
  StartFrame({"a", "b"});
  StartPlugin("a");
  StartPlugin("b");
  std::atomic<bool> enough{false};
  std::vector<std::future<void>> callers;
  for (int i = 0; i < 6; ++i) {
    callers.push_back(std::async(std::launch::async, [&enough, i] {
      while (!enough) Call(Request(i % 2 == 0 ? "/a/echo" : "/b/relay", "/a/echo"), 5s);
    }));
  }
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  EXPECT_FALSE(Call(Request("/a/echo")).came);
  enough = true;
  for (auto& caller : callers) EXPECT_EQ(caller.wait_for(kPatience), std::future_status::ready);
}

TEST_F(Shutdown, FollowedByAStartServesThePluginThatWasNotAskedToEnd) {
  StartFrame({});
  ChildProcess& a = LaunchPlugin("a");  // not listed, so it is not asked
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a"));
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  ASSERT_TRUE(a.WaitForLine("lost"));
  StartFrame({"a"});
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a", 2));
  EXPECT_TRUE(Call(Request("/a/echo")).came);
}

TEST_F(Shutdown, FollowedByStartsServesAPluginThatOutlivesThem) {
  ChildProcess& a = LaunchPlugin("a", "lasting");
  for (std::size_t life = 1; life <= 3; ++life) {
    StartFrame({"a"});
    ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a", life));
    const Answer answer = Call(Request("/a/echo", "hello"));
    EXPECT_TRUE(answer.came) << answer.error;
    const auto began = Clock::now();
    EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
    EXPECT_LT(Clock::now() - began, 9s) << "it has not answered Uninit in life " << life;
  }
  EXPECT_FALSE(a.WaitExit(0ms)) << a.Output();
}

// Takes the ten seconds that the frame gives its plugins.
using LongShutdown = SystemTest;

TEST_F(LongShutdown, WaitsTenSecondsForAPluginThatNeverAnswers) {
  StartFrame({"a", "b"});
  ChildProcess& a = StartPlugin("a", "stubborn");
  ChildProcess& b = StartPlugin("b");
  const auto began = Clock::now();
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  const auto took = Clock::now() - began;
  EXPECT_GE(took, 9900ms);
  EXPECT_LT(took, 20s);
  EXPECT_TRUE(a.WaitForLine("uninit"));
  EXPECT_FALSE(a.WaitExit(0ms));
  EXPECT_EQ(b.WaitExit(), (Exit{0, false})) << b.Output();
}

using Exiting = SystemTest;

TEST_F(Exiting, WithoutAStopWhilePluginsTalkIsCleanAndPrompt) {
  // Threads that nobody joins are what this is about; ThreadSanitizer would take them for a mistake.
  const char* const options = std::getenv("TSAN_OPTIONS");
  const EnvironmentValue tsan("TSAN_OPTIONS",
                              std::string(options != nullptr ? options : "") + " report_thread_leaks=0");
  ChildProcess& a = LaunchPlugin("a", "flooding");
  LaunchPlugin("b");
  ChildProcess& host = LaunchHost("exiting", {"a", "b"});
  ASSERT_TRUE(host.WaitForLine("b answered")) << host.Output();
  ASSERT_TRUE(a.WaitForLine("blocked"));
  const auto began = Clock::now();
  host.CloseInput();
  EXPECT_EQ(host.WaitExit(), (Exit{0, false})) << host.Output();
  EXPECT_LT(Clock::now() - began, 10s);
  EXPECT_TRUE(a.WaitForLine("lost"));
}

}  // namespace
}  // namespace tolm::test
