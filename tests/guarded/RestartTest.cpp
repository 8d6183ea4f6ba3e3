// What comes back when something dies.

#include <algorithm>
#include <string>

#include "GuardedTest.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using Restart = GuardedTest;

TEST_F(Restart, AKilledPluginComesBackWithItsUrls) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  KillAndSeeItBack(host, "a");
  EXPECT_GE(CountOf(host, "a", "disconnected"), 1U);
  EXPECT_TRUE(SeeEvent(host, "a", "uninitialised")) << "told by the guard";
  EXPECT_EQ(Call(host, "/a/pid"), "answer from a: " + std::to_string(PluginProcess("a")));
  StopHost(host);
}

TEST_F(Restart, ACallInTheMiddleOfACrashFailsAndTheNextOneWorks) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  EXPECT_EQ(Call(host, "/a/crash"), "no answer, error 7");
  EXPECT_TRUE(SeeEvent(host, "a", "initialised", 2));
  EXPECT_EQ(Call(host, "/a/echo", "again"), "answer from a: again");
  StopHost(host);
}

TEST_F(Restart, APluginThatEndsInOrderStaysEndedUntilItIsAskedFor) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  EXPECT_EQ(Call(host, "/a/exit"), "no answer, error 7");
  EXPECT_TRUE(SeeEvent(host, "a", "uninitialised"));
  EXPECT_TRUE(folder_.ProcessesOf(folder_.Plugin("a")).empty());
  host.Type("start a");
  EXPECT_TRUE(SeeEvent(host, "a", "initialised", 2));
  StopHost(host);
}

TEST_F(Restart, APluginThatCrashesAgainAndAgainIsGivenUp) {
  folder_.AddPlugin("bad", {"--crash-at-once"}, R"("restart": {"giveUpAfter": 2, "firstDelayMs": 1})");
  folder_.AddPlugin("good");
  ChildProcess& host = StartHost();
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "good", "initialised"));
  const auto crashes = [this] {
    std::size_t count = 0;
    const std::string log = ReadAll(folder_.Log("bad"));
    for (std::size_t at = 0; (at = log.find("crashing on purpose", at)) != log.npos; ++at) ++count;
    return count;
  };
  EXPECT_TRUE(WaitFor([&] { return crashes() >= 3; }, kPatience));
  EXPECT_TRUE(
      WaitFor([&] { return ReadAll(folder_.Log("guard")).find("crashing on purpose") != std::string::npos; },
              kPatience))
      << "the reason is told where people look";
  EXPECT_EQ(Call(host, "/good/echo", "well"), "answer from good: well");
  EXPECT_EQ(crashes(), 3U);
  StopHost(host);
}

TEST_F(Restart, AKilledGuardComesBackAndThePluginsWithIt) {
  folder_.AddPlugin("a", {"--family"});
  ChildProcess& host = StartAll();
  const ProcessId guard = OnlyProcessOf(folder_.Guard());
  KillProcess(guard);
  EXPECT_TRUE(SeeEvent(host, "a", "disconnected")) << "it does not outlive its guard";
  EXPECT_TRUE(SeeEvent(host, "a", "initialised", 2));
  EXPECT_NE(OnlyProcessOf(folder_.Guard()), guard);
  EXPECT_EQ(host.CountLines("\"method\":\"NotifyFrameInitState\""), 2U) << "once for each connection";
  // The plugin and the process that it started; those of before are gone.
  EXPECT_TRUE(WaitFor([this] { return folder_.ProcessesOf(folder_.Plugin("a")).size() == 2; }, kPatience));
  StopHost(host);
}

TEST_F(Restart, WhatAPluginStartedGoesWithIt) {
  folder_.AddPlugin("a", {"--family"});
  ChildProcess& host = StartAll();
  const auto program = folder_.Plugin("a");
  ASSERT_TRUE(WaitFor([&] { return folder_.ProcessesOf(program).size() == 2; }, kPatience));
  const auto before = folder_.ProcessesOf(program);
  EXPECT_EQ(Call(host, "/a/crash"), "no answer, error 7");
  EXPECT_TRUE(SeeEvent(host, "a", "initialised", 2));
  EXPECT_TRUE(WaitFor(
      [&] {
        const auto now = folder_.ProcessesOf(program);
        for (const ProcessId id : before) {
          if (std::find(now.begin(), now.end(), id) != now.end()) return false;
        }
        return now.size() == 2;
      },
      kPatience));
  StopHost(host);
}

TEST_F(Restart, ThePluginsOutliveAHostThatComesBackAtOnce) {
  folder_.AddPlugin("a");
  ChildProcess& first = StartAll();
  const ProcessId plugin = PluginProcess("a");
  const ProcessId guard = OnlyProcessOf(folder_.Guard());
  first.Kill();
  first.WaitExit();
  ChildProcess& second = StartAll();
  EXPECT_EQ(PluginProcess("a"), plugin);
  EXPECT_EQ(OnlyProcessOf(folder_.Guard()), guard);
  EXPECT_EQ(Call(second, "/a/echo", "still here"), "answer from a: still here");
  StopHost(second);
}

TEST_F(Restart, WithoutItsAgentTheGuardAndThePluginsEndAndTheHostStopsInOrder) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  KillProcess(OnlyProcessOf(folder_.Agent()));
  EXPECT_TRUE(SeeEvent(host, "a", "disconnected"));
  StopHost(host);
}

}  // namespace
}  // namespace tolm::test
