#include <string>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kAgentPath[] = "C:\\App\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe";
constexpr char kAgentEvent[] = "Global\\C:/App/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent";
constexpr char kStartFunction[] = "CLPCCommunicateWithTolmGuard::InitTolmAgent";
constexpr char kStopFunction[] = "CLPCCommunicateWithTolmGuard::UnInitTolmAgent";
const LogLine kBegin = Info(kStartFunction, "Start to init TolmAgent");

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

/// The agent that keeps the guard alive.
class GuardAgent : public GuardTest {
 protected:
  GuardAgent() {
    system_.directory = [] { return std::string("C:\\App\\"); };
  }

  /// The paths that a frame of type 1 at `path` starts its agent with.
  void StartFrameAt(const std::string& path, std::int32_t type = 1) {
    PlatformInfo info;
    info.frame_full_path = path;
    info.frame_type = type;
    List(info);
  }
  static std::string Removal(const std::string& escaped_path) {
    return "process.Remove wmic process where ExecutablePath=\"" + escaped_path + "\" delete";
  }
};

const std::string kRemoveGuard =
    "process.Remove wmic process where "
    "ExecutablePath=\"C:\\\\App\\\\TolmAgent\\\\TolmGuard\\\\TolmGuard.exe\" delete";
const std::string kRemoveAgent =
    "process.Remove wmic process where "
    "ExecutablePath=\"C:\\\\App\\\\TolmAgent\\\\TolmAgent\\\\TolmAgent_Exe64.exe\" delete";

// Starting.

TEST_F(GuardAgent, WithoutARunningAgentOneIsStarted) {
  Guard().InitTolmAgent("C:\\App\\Host.exe", kAgentPath, "Client");
  const std::string command = Quoted(kAgentPath) + " \"C:\\App\\Host.exe\" Client -process";
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("log Start to init TolmAgent", std::string("event.Open ") + kAgentEvent,
                          "log cmd [" + command + "]", "process.Start " + command,
                          "log Create Agent processID 4711 "));
  EXPECT_THAT(log_.Lines(), ElementsAre(kBegin, Info(kStartFunction, "cmd [" + command + "]"),
                                        Info(kStartFunction, "Create Agent processID 4711 ")));
}

TEST_F(GuardAgent, ARunningAgentIsNotStartedASecondTime) {
  system_.event_exists = true;
  Guard().InitTolmAgent("C:\\App\\Host.exe", kAgentPath, "Client");
  EXPECT_THAT(log_.Lines(), ElementsAre(kBegin));
  EXPECT_THAT(Journal::Of("process."), IsEmpty());
  EXPECT_THAT(Journal::Of("event."), ElementsAre(std::string("event.Open ") + kAgentEvent));
  EXPECT_EQ(AgentEventNameOf(Guard()), kAgentEvent);
}

TEST_F(GuardAgent, AnAgentThatDoesNotStartIsLoggedOnceAndNotTriedAgain) {
  system_.start = [](const std::string&) { return os::StartedProcess{false, 0, 2}; };
  Guard().InitTolmAgent("h", "a", "r");
  EXPECT_THAT(log_.Lines(), ElementsAre(kBegin, Info(kStartFunction, "cmd [\"a\" \"h\" r -process]"),
                                        Error(kStartFunction, "CreateProcess failed ErrorCode: 2")));
  EXPECT_EQ(Journal::Of("process.").size(), 1u);
  EXPECT_EQ(AgentEventNameOf(Guard()), "Global\\a-agent");
}

TEST_F(GuardAgent, TheEventsNameHasTheResolvedPathAndTheCommandLineThePathAsGiven) {
  Guard().InitTolmAgent("C:\\x\\..\\Host.exe", "C:\\x\\..\\App\\\\Agent.exe", "Client");
  EXPECT_THAT(Journal::Of("event."), ElementsAre("event.Open Global\\C:/App/Agent.exe-agent"));
  EXPECT_THAT(
      Journal::Of("process."),
      ElementsAre("process.Start \"C:\\x\\..\\App\\\\Agent.exe\" \"C:\\x\\..\\Host.exe\" Client -process"));
}

TEST_F(GuardAgent, APathThatClimbsTooHighNamesTheEventAsItIs) {
  Guard().InitTolmAgent("h", "..\\App\\Agent.exe", "Client");
  EXPECT_THAT(Journal::Of("event."), ElementsAre("event.Open Global\\../App/Agent.exe-agent"));
}

// The paths of a frame of type 1.

TEST_F(GuardAgent, AFrameOfTypeOneStartsTheAgentBesideTheHost) {
  StartFrameAt("C:/App\\sub/Host.exe");
  EXPECT_THAT(Journal::Of("process."),
              ElementsAre("process.Start \"C:\\App\\sub\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe\" "
                          "\"C:\\App\\sub\\Host.exe\" Client -process"));
  EXPECT_THAT(Journal::Of("event."),
              ElementsAre("event.Open Global\\C:/App/sub/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent"));
  EXPECT_EQ(Registry().GetFrameFullPath(), "C:/App\\sub/Host.exe");
}

TEST_F(GuardAgent, AHostPathWithoutAFolderGivesAnAgentWithoutOne) {
  StartFrameAt("Host.exe");
  EXPECT_THAT(Journal::Of("process."),
              ElementsAre("process.Start \"TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe\" \"Host.exe\" Client "
                          "-process"));
}

TEST_F(GuardAgent, AnAbsolutePathWithSlashesKeepsItsLeadingSeparatorInTheCommandLineOnly) {
  StartFrameAt("/opt/app/host");
  EXPECT_THAT(Journal::Of("process."),
              ElementsAre("process.Start \"\\opt\\app\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe\" "
                          "\"\\opt\\app\\host\" Client -process"));
  EXPECT_THAT(Journal::Of("event."),
              ElementsAre("event.Open Global\\opt/app/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent"));
}

TEST_F(GuardAgent, FramesOfOtherTypesHaveNoAgent) {
  for (const std::int32_t type : {0, 2, -1, 3}) StartFrameAt("C:\\App\\Host.exe", type);
  EXPECT_THAT(Journal::Of("event."), IsEmpty());
  EXPECT_THAT(Journal::Of("process."), IsEmpty());
  EXPECT_EQ(AgentEventNameOf(Guard()), "");
}

// Stopping.

TEST_F(GuardAgent, AnAgentThatRunsIsSignalledWaitedForAndRemovedBehindTheGuard) {
  Guard().InitTolmAgent("h", kAgentPath, "Client");
  system_.event_exists = true;
  FromNowOn();
  Guard().UnInitTolmAgent();
  EXPECT_THAT(Journal::Entries(), ElementsAre(std::string("event.Open ") + kAgentEvent, "event.Set",
                                              "log _Watchdog_Protect_ Event is seted 77 ", "event.Wait 5000",
                                              kRemoveGuard, kRemoveAgent));
  EXPECT_THAT(log_.Lines(), ElementsAre(Info(kStopFunction, "_Watchdog_Protect_ Event is seted 77 ")));
}

TEST_F(GuardAgent, AnAgentThatDoesNotAnswerIsLoggedAndRemovedAllTheSame) {
  Guard().InitTolmAgent("h", kAgentPath, "Client");
  system_.event_exists = true;
  system_.event_wait = false;
  FromNowOn();
  Guard().UnInitTolmAgent();
  EXPECT_THAT(log_.Lines(), ElementsAre(Info(kStopFunction, "_Watchdog_Protect_ Event is seted 77 "),
                                        Info(kStopFunction, "TolmAgent Uninit over time")));
  EXPECT_THAT(Journal::Of("process."), ElementsAre(kRemoveGuard, kRemoveAgent));
}

TEST_F(GuardAgent, WithoutAnEarlierStartNothingIsSignalledAndBothAreRemoved) {
  Guard().UnInitTolmAgent();
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(Journal::Of("event.Set"), IsEmpty());
  EXPECT_THAT(Journal::Of("process."), ElementsAre(kRemoveGuard, kRemoveAgent));
}

TEST_F(GuardAgent, ASecondStopSignalsAndRemovesAgain) {
  Guard().InitTolmAgent("h", kAgentPath, "Client");
  system_.event_exists = true;
  Guard().UnInitTolmAgent();
  FromNowOn();
  Guard().UnInitTolmAgent();
  EXPECT_EQ(Journal::Count("event.Set"), 1u);
  EXPECT_THAT(Journal::Of("process."), ElementsAre(kRemoveGuard, kRemoveAgent));
  EXPECT_EQ(AgentEventNameOf(Guard()), kAgentEvent);
}

TEST_F(GuardAgent, WhatIsRemovedLiesBesideTheRunningExecutableWhereverTheAgentWasStarted) {
  StartFrameAt("D:\\elsewhere\\Host.exe");
  FromNowOn();
  Guard().UnInitTolmAgent();
  EXPECT_THAT(Journal::Of("event."),
              ElementsAre("event.Open Global\\D:/elsewhere/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent"));
  EXPECT_THAT(Journal::Of("process."), ElementsAre(kRemoveGuard, kRemoveAgent));
}

TEST_F(GuardAgent, RemovalCommandsNameNormalizedPaths) {
  system_.directory = [] { return std::string("C:\\x\\..\\App\\"); };
  Guard().UnInitTolmAgent();
  EXPECT_THAT(Journal::Of("process."), ElementsAre(kRemoveGuard, kRemoveAgent));
}

TEST_F(GuardAgent, RemovalCommandsBelowAFolderWithSlashesKeepThem) {
  system_.directory = [] { return std::string("/opt/app/"); };
  Guard().UnInitTolmAgent();
  EXPECT_THAT(Journal::Of("process."),
              ElementsAre(Removal("/opt/app/TolmAgent\\\\TolmGuard\\\\TolmGuard.exe"),
                          Removal("/opt/app/TolmAgent\\\\TolmAgent\\\\TolmAgent_Exe64.exe")));
}

TEST_F(GuardAgent, TheAgentWaitsForItsEventWithNothingHeldUp) {
  Guard().InitTolmAgent("h", kAgentPath, "Client");
  system_.event_exists = true;
  // While the stop waits for the agent, the guard's side can be used.
  system_.event_wait = [](int) {
    Guard().NotifyState();
    EXPECT_EQ(AgentEventNameOf(Guard()), kAgentEvent);
    return true;
  };
  Guard().UnInitTolmAgent();
  EXPECT_EQ(net_.Sent("NotifyState").size(), 1u);
}

}  // namespace
}  // namespace tolm::test
