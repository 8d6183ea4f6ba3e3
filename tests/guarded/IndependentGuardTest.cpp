// A guard of another maker serves a host, from its start to its end.

#include <cstdio>
#include <string>
#include <vector>

#include "IndependentGuard.h"

namespace tolm::test {
namespace {

using IndependentGuard = IndependentGuardTest;

TEST_F(IndependentGuard, LearnsWhoTheHostIsAndWhichPluginsItHas) {
  folder_.AddPlugin("b");
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  EXPECT_TRUE(guard.WaitForLine("answer GetMianProcessPath question-1: " + folder_.Host().string()));
  EXPECT_TRUE(guard.WaitForLine("answer GetProcessInitStateList question-2: a=0 b=0"));
  ExpectAnswered(guard);
  EXPECT_EQ(guard.CountLines("told"), 0U) << "before the host announces anything";
  EXPECT_EQ(guard.CountLines("asked"), 0U);
  StopHost(host);
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
}

TEST_F(IndependentGuard, StartsThePluginsAndTheyServe) {
  folder_.AddPlugin("a");
  folder_.AddPlugin("b");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(SeeEvent(host, "b", "initialised"));
  EXPECT_TRUE(host.WaitForLine("Notify Guard LPCFrame Init Successfully"));
  EXPECT_TRUE(InOrder(guard, "asked NotifyLPCFrameInit", "told to start a b with --endpoint host"));
  EXPECT_TRUE(guard.WaitForLines("told NotifyState 1", 2)) << "one for each plugin";
  EXPECT_EQ(States(guard), "a=1 b=1");
  EXPECT_EQ(Call(host, "/a/echo", "hello"), "answer from a: hello");
  EXPECT_EQ(Call(host, "/b/pid"), "answer from b: " + std::to_string(PluginProcess("b")));
  StopHost(host);
}

TEST_F(IndependentGuard, IsToldBeforeAndAfterThePluginsWhenTheHostStops) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  Announce(host);
  ASSERT_TRUE(SeeEvent(host, "a", "initialised"));
  StopHost(host);
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
  EXPECT_TRUE(InOrder(guard, "asked SetProcessGuardStateList", "watching a=0"));
  EXPECT_TRUE(InOrder(guard, "watching a=0", "asked to uninitialise")) << "printed by the plugin";
  EXPECT_TRUE(InOrder(guard, "asked to uninitialise", "told NotifyFrameUninit"));
  EXPECT_TRUE(InOrder(guard, "told NotifyFrameUninit", "connection ended"));
  EXPECT_EQ(guard.CountLines("started a"), 1U) << "who ends in the stop is not started again";
}

TEST_F(IndependentGuard, ReportsAKilledPluginAndBringsItBack) {
  folder_.AddPlugin("a");
  folder_.AddPlugin("b");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  Announce(host);
  ASSERT_TRUE(SeeEvent(host, "a", "initialised"));
  ASSERT_TRUE(SeeEvent(host, "b", "initialised"));
  KillAndSeeItBack(host, "a");
  EXPECT_TRUE(SeeEvent(host, "a", "uninitialised"));
  EXPECT_EQ(guard.CountLines("ended a"), 1U);
  EXPECT_EQ(CountOf(host, "b", "uninitialised"), 0U);
  EXPECT_EQ(Call(host, "/a/echo", "again"), "answer from a: again");
  EXPECT_EQ(States(guard), "a=1 b=1");
  StopHost(host);
}

TEST_F(IndependentGuard, IsBelievedWhenItSaysThatAProcessHasEnded) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  Announce(host);
  ASSERT_TRUE(SeeEvent(host, "a", "initialised"));
  const std::string ended =
      R"(text {"guid":"1","requestData":{"method":"NotifyProcessState","state":0,"processId":"a"}})";
  guard.Type(ended);
  EXPECT_TRUE(SeeEvent(host, "a", "uninitialised"));
  EXPECT_EQ(States(guard), "a=0");
  guard.Type(ended);
  ExpectAnswered(guard);
  StopHost(host);
  EXPECT_EQ(CountOf(host, "a", "uninitialised"), 1U) << "it was not initialised any more";
}

TEST_F(IndependentGuard, StartsThePluginThatTheHostAsksFor) {
  folder_.AddPlugin("a");
  folder_.AddPlugin("b");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host, {"--start-nothing"});
  Announce(host);
  EXPECT_TRUE(guard.WaitForLine("told to start a b with --endpoint host"));
  host.Type("start stranger");
  host.Type("start b");
  EXPECT_TRUE(SeeEvent(host, "b", "initialised"));
  EXPECT_EQ(guard.CountLines("told StartProcess b"), 1U);
  EXPECT_EQ(guard.CountLines("told StartProcess"), 1U) << "the unknown one is not asked for";
  EXPECT_TRUE(guard.WaitForLine("told NotifyState 1"));
  EXPECT_EQ(States(guard), "a=0 b=1");
  StopHost(host);
}

TEST_F(IndependentGuard, IsNotToldToStartAPluginThatIsNotVerified) {
  ChildProcess& host =
      Launch({folder_.Host().string(), "--log", "info", "--plugin", "a", "--unverified", "b"});
  ASSERT_TRUE(host.WaitForLine("the frame listens"));
  ChildProcess& guard = StartGuard(host, {"--start-nothing"});
  EXPECT_EQ(States(guard), "a=0 b=0") << "every plugin that the host has listed";
  Announce(host);
  EXPECT_TRUE(guard.WaitForLine("told to start a with --endpoint host"));
  StopHost(host);
}

TEST_F(IndependentGuard, ServesAHostWithoutPlugins) {
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  EXPECT_EQ(States(guard), "none");
  host.Type("announce");
  EXPECT_TRUE(guard.WaitForLine("told to start none with nothing"));
  StopHost(host);
  EXPECT_TRUE(guard.WaitForLine("watching none"));
}

TEST_F(IndependentGuard, GetsTheCommandLineAsTheHostGaveIt) {
  ChildProcess& host = StartHostWith({"a"});
  ChildProcess& guard = StartGuard(host, {"--start-nothing"});
  const std::string line = R"(--name "two words" \back\slash /slash ä€😀 )"
                           "\t\x7f end";
  host.Type("announce " + line);
  EXPECT_TRUE(guard.WaitForLine("told to start a with " + line));
  StopHost(host);
}

TEST_F(IndependentGuard, GetsListsOfAnyLength) {
  std::vector<std::string> ids;
  std::string states;
  std::string unwatched;
  for (int i = 0; i < 3000; ++i) {
    const std::string digits = std::to_string(i);
    ids.push_back("p" + std::string(4 - digits.size(), '0') + digits);
    states += (i == 0 ? "" : " ") + ids.back() + "=0";
    unwatched += " " + ids.back() + "=0";
  }
  ChildProcess& host = StartHostWith(ids);
  ChildProcess& guard = StartGuard(host, {"--start-nothing"});
  EXPECT_EQ(States(guard), states);
  Announce(host);
  EXPECT_TRUE(guard.WaitForLine("told to start p0000 p0001"));
  StopHost(host);
  EXPECT_TRUE(guard.WaitForLine("watching" + unwatched));
}

TEST_F(IndependentGuard, FindsThePortThatTheFrameHasWritten) {
  ChildProcess& first = StartHost(0);
  const int taken = folder_.Port("ServerPort");
  ChildProcess& second =
      Launch({folder_.Host().string(), "--endpoint", "second", "--log", "info", "--plugin", "x"});
  ASSERT_TRUE(second.WaitForLine("the frame listens as \"second\""));
  EXPECT_NE(folder_.Port("ServerPort"), taken);
  const std::string file = ReadAll(folder_.Config());
  EXPECT_EQ(file.find("ClientPort"), std::string::npos) << "the other element is dropped";
  EXPECT_TRUE(file.ends_with('\n'));
  ChildProcess& guard = StartGuard(second, {"--start-nothing"});
  EXPECT_EQ(States(guard), "x=0");
  EXPECT_EQ(first.CountLines("Get client info"), 0U);
}

TEST_F(IndependentGuard, MayAskForAnyPathSlowly) {
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host, {"--path", "/some/where?x=1", "--slow-handshake"});
  ExpectAnswered(guard);
  StopHost(host);
}

TEST_F(IndependentGuard, AnswersOnlyTheThirdTime) {
  ChildProcess& host = StartHostWith({"a"});
  ChildProcess& guard = StartGuard(host, {"--start-nothing", "--mute", "NotifyLPCFrameInit:2"});
  Announce(host);
  EXPECT_TRUE(guard.WaitForLines("asked NotifyLPCFrameInit", 3));
  EXPECT_TRUE(host.WaitForLine("Notify Guard LPCFrame Init Successfully"));
  EXPECT_TRUE(host.WaitForLine("announced"));
  EXPECT_TRUE(guard.WaitForLine("told to start a"));
  StopHost(host);
  EXPECT_EQ(guard.CountLines("asked NotifyLPCFrameInit"), 3U);
  EXPECT_EQ(guard.CountLines("told to start"), 1U);
}

TEST_F(IndependentGuard, ThatRepliesTwiceDisturbsNothing) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host, {"--two-answers"});
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  ExpectAnswered(guard);
  StopHost(host);
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
}

// The first announcement without a guard takes fifteen seconds.
TEST_F(IndependentGuard, ThatComesLateIsToldOnceForEachConnection) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  AnnounceToNobody(host);
  ASSERT_TRUE(host.WaitForLine("announced"));
  EXPECT_EQ(host.CountLines("Notify Guard LPCFrame Init failed"), 3U);
  ChildProcess& guard = StartGuard(host);
  EXPECT_TRUE(guard.WaitForLine("told to start a with --endpoint host"));
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));

  guard.Type("reconnect");
  EXPECT_TRUE(guard.WaitForLines("told to start a with --endpoint host", 2));
  EXPECT_TRUE(guard.WaitForLine("running already a"));
  EXPECT_EQ(Call(host, "/a/echo", "still here"), "answer from a: still here");

  Announce(host);
  EXPECT_TRUE(host.WaitForLines("announced", 2));
  ExpectAnswered(guard);
  EXPECT_EQ(guard.CountLines("told to start"), 2U) << "nothing more while the connection lasts";
  EXPECT_EQ(guard.CountLines("asked NotifyLPCFrameInit"), 0U) << "nothing else is repeated";
  StopHost(host);
}

TEST_F(IndependentGuard, ThatComesDuringTheFirstAnnouncementIsToldOnce) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  AnnounceToNobody(host);
  ASSERT_TRUE(host.WaitForLine("Notify Guard LPCFrame Init failed"));
  ChildProcess& guard = StartGuard(host);
  EXPECT_TRUE(host.WaitForLine("announced"));
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  ExpectAnswered(guard);
  EXPECT_EQ(guard.CountLines("told to start a with --endpoint host"), 1U);
  StopHost(host);
}

TEST_F(IndependentGuard, ThatConnectsAgainIsToldAgainAndItsPluginsStay) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host);
  Announce(host);
  ASSERT_TRUE(SeeEvent(host, "a", "initialised"));
  for (std::size_t times = 2; times < 6; ++times) {
    guard.Type("reconnect");
    EXPECT_TRUE(guard.WaitForLines("told to start a with --endpoint host", times));
    ExpectAnswered(guard);
    EXPECT_EQ(guard.CountLines("told to start"), times);
  }
  EXPECT_EQ(guard.CountLines("asked NotifyLPCFrameInit"), 1U);
  EXPECT_EQ(CountOf(host, "a", "disconnected"), 0U);
  StopHost(host);
}

TEST_F(IndependentGuard, ThatIsMuteAtTheStopIsSentAwayBeforeThePluginsAreAsked) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& guard = StartGuard(host, {"--mute", "SetProcessGuardStateList"});
  Announce(host);
  ASSERT_TRUE(SeeEvent(host, "a", "initialised"));
  StopHost(host);
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
  EXPECT_TRUE(InOrder(guard, "asked SetProcessGuardStateList", "told NotifyFrameUninit"));
  EXPECT_EQ(guard.CountLines("told NotifyFrameUninit"), 1U) << "and not afterwards";
  const std::string said = host.Output();
  const std::size_t down = said.find("\"method\":\"NotifyFrameUninit\"");
  EXPECT_NE(down, std::string::npos);
  EXPECT_LT(down, said.find("Notify [a] plugin start uninit"));
}

TEST_F(IndependentGuard, ThatCameLastIsTheOneThatIsTold) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  ChildProcess& earlier = StartGuard(host);
  ChildProcess& later = StartGuard(host);
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(later.WaitForLine("told NotifyState 1"));
  for (ChildProcess* guard : {&earlier, &later}) guard->Type("ask GetProcessInitStateList same");
  EXPECT_TRUE(earlier.WaitForLine("answer GetProcessInitStateList same: a=1"));
  EXPECT_TRUE(later.WaitForLine("answer GetProcessInitStateList same: a=1"));
  StopHost(host);
  EXPECT_EQ(earlier.WaitExit(), (Exit{0, false}));
  EXPECT_EQ(later.CountLines("told NotifyFrameUninit"), 1U);
  EXPECT_EQ(earlier.CountLines("told"), 0U) << earlier.Output();
  EXPECT_EQ(earlier.CountLines("asked"), 0U) << earlier.Output();
  EXPECT_EQ(earlier.CountLines("unasked"), 0U) << earlier.Output();
}

TEST_F(IndependentGuard, ThatCameEarlierIsNotToldWhenTheLaterOneHasGone) {
  ChildProcess& host = StartHostWith({"a"});
  ChildProcess& earlier = StartGuard(host, {"--start-nothing"});
  ChildProcess& later = StartGuard(host, {"--start-nothing"});
  Announce(host);
  EXPECT_TRUE(later.WaitForLine("told to start a"));
  later.CloseInput();
  EXPECT_EQ(later.WaitExit(), (Exit{0, false}));
  ASSERT_TRUE(host.WaitForLine("WebsocketServerClose"));
  host.Type("start a");
  EXPECT_TRUE(host.WaitForLine("WebsocketServerSend fail error code = 1"));
  ExpectAnswered(earlier);
  ChildProcess& next = StartGuard(host, {"--start-nothing"});
  EXPECT_TRUE(next.WaitForLine("told to start a"));
  StopHost(host);
  EXPECT_EQ(next.CountLines("told StartProcess"), 0U) << "nothing is kept for a guard that is not there";
  EXPECT_EQ(earlier.WaitExit(), (Exit{0, false}));
  EXPECT_EQ(earlier.CountLines("told"), 0U);
}

TEST_F(IndependentGuard, TakesTheAgentsGuardsPlace) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(1);
  ASSERT_TRUE(host.WaitForLine("Get client info"));
  ChildProcess& guard = StartGuard(host, {}, "ClientPort");
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(guard.WaitForLine("started a"));
  StopHost(host);
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
}

}  // namespace
}  // namespace tolm::test
