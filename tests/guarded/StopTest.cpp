// Ends, asked for or not.

#include <string>

#include "GuardedTest.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using Stop = GuardedTest;

TEST_F(Stop, TellsTheGuardBeforeThePlugins) {
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  StopHost(host);
  const std::string said = host.Output();
  const std::size_t list = said.find("\"method\":\"SetProcessGuardStateList\",\"guardInfoList\"");
  const std::size_t asked = said.find("Notify [a] plugin start uninit");
  const std::size_t down = said.find("\"method\":\"NotifyFrameUninit\"");
  const std::size_t agent = said.find("_Watchdog_Protect_ Event is seted");
  EXPECT_LT(list, asked);
  EXPECT_LT(asked, down);
  EXPECT_LT(down, agent);
  EXPECT_NE(agent, std::string::npos);
  EXPECT_EQ(said.find("TolmAgent Uninit over time"), std::string::npos);
  EXPECT_EQ(CountOf(host, "a", "initialised"), 1U) << "who ended in the stop is not started again";
}

TEST_F(Stop, APluginThatIgnoresEverythingIsKilled) {
  folder_.AddPlugin("a", {"--stubborn"}, R"("stopGraceMs": 200)");
  ChildProcess& host = StartAll();
  StopHost(host);
}

TEST_F(Stop, WithoutPluginsIsQuick) {
  ChildProcess& host = StartHost();
  ASSERT_TRUE(host.WaitForLine("Get client info"));
  StopHost(host);
}

TEST_F(Stop, OfAHostThatIsKilledLeavesNothingAfterTheGrace) {
  folder_.AddPlugin("a", {"--family"});
  ChildProcess& host = StartAll();
  host.Kill();
  host.WaitExit();
  EXPECT_TRUE(WaitFor([this] { return folder_.Processes().empty(); }, kPatience));
}

TEST_F(Stop, TwiceInARowThroughTheSameFolder) {
  folder_.AddPlugin("a");
  StopHost(StartAll());
  StopHost(StartAll());
}

}  // namespace
}  // namespace tolm::test
