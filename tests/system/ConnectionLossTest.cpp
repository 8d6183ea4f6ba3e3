// Plugins and frames that are killed.

#include <future>
#include <string>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using KilledPlugin = SystemTest;

TEST_F(KilledPlugin, IsReportedAtOnce) {
  StartFrame({"a"});
  ChildProcess& a = StartPlugin("a");
  const auto killed = Clock::now();
  a.Kill();
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginDisconnected, "a"));
  EXPECT_LT(Clock::now() - killed, kAtOnce);
}

TEST_F(KilledPlugin, FailsTheCallsThatWaitForIt) {
  StartFrame({"a"});
  ChildProcess& a = StartPlugin("a");
  ASSERT_TRUE(a.WaitForLine("ready"));
  auto first = std::async(std::launch::async, [] { return Call(Request("/a/block"), 60s); });
  auto second = std::async(std::launch::async, [] { return Call(Request("/a/block"), 60s); });
  ASSERT_TRUE(a.WaitForLine("blocked\nblocked"));
  const auto killed = Clock::now();
  a.Kill();
  for (auto* call : {&first, &second}) {
    const Answer answer = call->get();
    EXPECT_FALSE(answer.came);
    EXPECT_EQ(answer.error, kPeerGone);
  }
  EXPECT_LT(Clock::now() - killed, kAtOnce);
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginDisconnected, "a"));
}

TEST_F(KilledPlugin, IsNotConnectedForLaterCalls) {
  StartFrame({"a"});
  KillPlugin(StartPlugin("a"), "a");
  const Answer answer = Call(Request("/a/echo"));
  EXPECT_FALSE(answer.came);
  EXPECT_EQ(answer.error, kNoSuchPeer);
}

TEST_F(KilledPlugin, ServesAgainWhenItReturns) {
  StartFrame({"a"});
  for (int life = 1; life <= 3; ++life) {
    ChildProcess& a = StartPlugin("a");
    const Answer answer = Call(Request("/a/echo", "hello"));
    ASSERT_TRUE(answer.came) << answer.error;
    EXPECT_EQ(answer.data.http_headers.at("X-Process"), std::to_string(a.id()));
    KillPlugin(a, "a");
  }
}

TEST_F(KilledPlugin, DisturbsNoOther) {
  StartFrame({"a", "b"});
  ChildProcess& a = StartPlugin("a");
  ChildProcess& b = StartPlugin("b");
  auto call = std::async(std::launch::async, [] { return Call(Request("/b/relay", "/b/echo")); });
  KillPlugin(a, "a");
  EXPECT_TRUE(call.get().came);
  EXPECT_FALSE(b.WaitExit(0ms));
  EXPECT_EQ(host_.CountOf(TolmLPCFrame::kLpcMsgPluginDisconnected, "b"), 0u);
}

TEST_F(KilledPlugin, GivesItsNameToNobodyWhileItLives) {
  StartFrame({"a"});
  ChildProcess& first = StartPlugin("a");
  ChildProcess& second = LaunchPlugin("a");
  ASSERT_TRUE(second.WaitForLine("waiting for a frame")) << second.Output();
  EXPECT_EQ(Call(Request("/a/echo")).data.http_headers["X-Process"], std::to_string(first.id()));
  KillPlugin(first, "a");
  ASSERT_TRUE(second.WaitForLine("ready"));
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a", 2));
  EXPECT_EQ(Call(Request("/a/echo")).data.http_headers["X-Process"], std::to_string(second.id()));
}

using KilledFrame = SystemTest;

TEST_F(KilledFrame, IsReplacedAndItsPluginsComeBack) {
  ChildProcess& a = LaunchPlugin("a");
  ChildProcess& b = LaunchPlugin("b");
  for (int life = 1; life <= 3; ++life) {
    ChildProcess& host = LaunchHost("serving", {"a", "b"});
    EXPECT_EQ(host.WaitForLine("init "), "init 0") << host.Output();
    EXPECT_TRUE(host.WaitForLine("a answered hello")) << host.Output();
    EXPECT_TRUE(host.WaitForLine("b answered hello")) << host.Output();
    if (life < 3) {
      host.Kill();
      EXPECT_EQ(host.WaitExit(), kKilled);
    } else {
      host.CloseInput();
      EXPECT_EQ(host.WaitExit(), (Exit{0, false})) << host.Output();
    }
  }
  EXPECT_EQ(a.WaitExit(), (Exit{0, false})) << a.Output();
  EXPECT_EQ(b.WaitExit(), (Exit{0, false})) << b.Output();
}

TEST_F(KilledFrame, IsNoticedByItsPlugins) {
  ChildProcess& a = LaunchPlugin("a");
  ChildProcess& host = LaunchHost("serving", {"a"});
  ASSERT_TRUE(host.WaitForLine("a answered hello")) << host.Output();
  host.Kill();
  EXPECT_TRUE(a.WaitForLine("lost"));
  a.AskToEnd();
  EXPECT_EQ(a.WaitExit(), (Exit{0, false})) << a.Output();
}

}  // namespace
}  // namespace tolm::test
