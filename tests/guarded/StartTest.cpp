// From the host's start to plugins that work.

#include <fstream>

#include "GuardedTest.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using Start = GuardedTest;

TEST_F(Start, TheAnnouncedPluginsAreStartedByTheGuardAndServe) {
  folder_.AddPlugin("a");
  folder_.AddPlugin("b");
  ChildProcess& host = StartAll();
  EXPECT_EQ(Call(host, "/a/echo", "hello"), "answer from a: hello");
  EXPECT_EQ(Call(host, "/b/pid"), "answer from b: " + std::to_string(PluginProcess("b")));
  StopHost(host);
}

TEST_F(Start, NothingIsStartedBeforeTheHostSaysSo) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost();
  ASSERT_TRUE(host.WaitForLine("Get client info"));
  ASSERT_TRUE(host.WaitForLine("str_raw_msg:")) << "the guard's first question";
  EXPECT_TRUE(folder_.ProcessesOf(folder_.Plugin("a")).empty());
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  StopHost(host);
}

TEST_F(Start, APluginGetsItsManifestsArgumentsAndEnvironment) {
  folder_.AddPlugin("a", {}, R"("environment": {"TOLM_TEST_WORD": "from the manifest"})");
  ChildProcess& host = StartAll();
  EXPECT_EQ(Call(host, "/a/environment", "TOLM_TEST_WORD"), "answer from a: from the manifest");
  StopHost(host);
}

TEST_F(Start, WhatAPluginPrintsIsInItsLog) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  EXPECT_TRUE(WaitFor([this] { return ReadAll(folder_.Log("a")).find("a is ready") != std::string::npos; },
                      kPatience));
  StopHost(host);
  EXPECT_NE(ReadAll(folder_.Log("a")).find("asked to uninitialise"), std::string::npos);
}

TEST_F(Start, APluginsFolderMayHaveBlanksAndLettersOfAnyLanguage) {
  const std::string id =
      "my cl\xc3\xb6"
      "ck";
  folder_.AddPlugin(id);
  ChildProcess& host = StartAll();
  EXPECT_GT(PluginProcess(id), 0);
  StopHost(host);
  EXPECT_NE(ReadAll(folder_.Log(id)).find(id + " is ready"), std::string::npos);
}

TEST_F(Start, APluginWithoutAManifestHoldsUpNobody) {
  folder_.AddPlugin("a");
  ChildProcess& host = Launch({folder_.Host().string(), "--frame-type", "1", "--plugin", "a", "--plugin",
                               "missing", "--log", "info"});
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(WaitFor([this] { return ReadAll(folder_.Log("guard")).find("missing") != std::string::npos; },
                      kPatience));
  StopHost(host);
}

TEST_F(Start, APluginThatIsNotVerifiedIsNotStarted) {
  folder_.AddPlugin("a");
  folder_.AddPlugin("b");
  ChildProcess& host = Launch(
      {folder_.Host().string(), "--frame-type", "1", "--plugin", "a", "--unverified", "b", "--log", "info"});
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(folder_.ProcessesOf(folder_.Plugin("b")).empty());
  host.Type("start b");
  EXPECT_TRUE(SeeEvent(host, "b", "initialised")) << "asked for by name";
  StopHost(host);
}

TEST_F(Start, AGuardStartedByHandServesAHostOfAnotherFrameType) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(2);
  EXPECT_TRUE(folder_.ProcessesOf(folder_.Agent()).empty());
  ChildProcess& guard = Launch({folder_.Guard().string(), "--role", "Server"});
  Announce(host);
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  host.Type("stop");
  EXPECT_EQ(host.WaitExit(), (Exit{0, false}));
  EXPECT_TRUE(WaitFor([this] { return folder_.ProcessesOf(folder_.Plugin("a")).empty(); }, kPatience));
  guard.AskToEnd();
  EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
  ExpectNothingLeft();
}

TEST_F(Start, ASecondGuardForTheSameFrameIsRefused) {
  ChildProcess& host = StartHost();
  ASSERT_TRUE(host.WaitForLine("Get client info"));
  ChildProcess& second = Launch({folder_.Guard().string(), "--role", "Client"});
  EXPECT_EQ(second.WaitExit(), (Exit{3, false})) << second.Output();
  StopHost(host);
}

TEST_F(Start, ASecondAgentFindsTheFirst) {
  ChildProcess& host = StartHost();
  OnlyProcessOf(folder_.Guard());
  ChildProcess& second = Launch({folder_.Agent().string(), folder_.Host().string(), "Client", "-process"});
  EXPECT_EQ(second.WaitExit(), (Exit{0, false})) << second.Output();
  StopHost(host);
}

TEST_F(Start, WithoutAnEndpointFileTheFrameStillServesPluginsThatComeByThemselves) {
  std::filesystem::remove(folder_.Config());
  folder_.AddPlugin("a");
  ChildProcess& host = StartHost(0);
  std::filesystem::current_path(folder_.path() / "plugins/a");
  Launch({folder_.Plugin("a").string(), "--endpoint", "host"});
  EXPECT_TRUE(SeeEvent(host, "a", "initialised"));
  EXPECT_TRUE(host.WaitForLine("SetConfigXml failed"));
  EXPECT_EQ(Call(host, "/a/echo", "hello"), "answer from a: hello");
  host.Type("stop");
  EXPECT_EQ(host.WaitExit(), (Exit{0, false}));
}

TEST_F(Start, APortThatIsTakenIsReplacedInTheFile) {
  const int taken = folder_.Port("ClientPort");
  ChildProcess& other = StartHost();  // a frame in the same folder listens there
  ASSERT_TRUE(other.WaitForLine("Get client info"));
  ChildProcess& host =
      Launch({folder_.Host().string(), "--frame-type", "0", "--endpoint", "second", "--log", "info"});
  ASSERT_TRUE(host.WaitForLine("the frame listens"));
  EXPECT_EQ(folder_.Port("ClientPort"), taken) << "another element, another port";
  std::ofstream(folder_.Config()) << "<Config>\n<ServerPort>" << taken << "</ServerPort>\n</Config>\n";
  ChildProcess& third =
      Launch({folder_.Host().string(), "--frame-type", "0", "--endpoint", "third", "--log", "info"});
  EXPECT_TRUE(third.WaitForLine("local xml port conflict"));
  EXPECT_TRUE(third.WaitForLine("Websocket Server Start successd"));
  EXPECT_NE(folder_.Port("ServerPort"), taken);
}

}  // namespace
}  // namespace tolm::test
