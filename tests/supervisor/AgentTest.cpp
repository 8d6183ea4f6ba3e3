// The agent as a process, with a stand-in in the place of the guard.

#include "AgentTest.h"

#include <algorithm>
#include <system_error>

#include "common/AgentNames.h"
#include "os/HiddenProcess.h"
#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace tolm::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

TEST_F(AgentTest, ItsEventExistsWhileItRuns) {
  EXPECT_FALSE(OpenEvent());
  StartAgent();
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_TRUE(OpenEvent()) << event_name_;
  agent_->AskToEnd();
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
  EXPECT_FALSE(OpenEvent());
}

TEST_F(AgentTest, TheFramesCommandLineStartsIt) {
  std::string path = agent_path_.string();
  std::replace(path.begin(), path.end(), '/', '\\');
  ASSERT_EQ(TolmLPCFrame::AgentEventName(path), event_name_);
  const os::StartedProcess started = os::StartHidden("\"" + path + "\" \"\" Client -process");
  ASSERT_TRUE(started.started) << started.error;
  const ProcessId guard = WaitForGuard(1);
  EXPECT_GT(guard, 0);
  const auto event = OpenEvent();
  EXPECT_TRUE(event);
  if (event) {
    event->Set();
    EXPECT_TRUE(event->Wait(5000));
    EXPECT_FALSE(IsAlive(guard));
  }
  EXPECT_TRUE(WaitFor([&] { return !IsAlive(started.process_id); }, kPatience));
}

TEST_F(AgentTest, ASecondOneEndsAtOnceAndChangesNothing) {
  StartAgent();
  const ProcessId guard = WaitForGuard(1);
  ChildProcess second(Command({"", "Client", "-process"}));
  EXPECT_EQ(second.WaitExit(), kOrderly);
  EXPECT_EQ(second.Output(), "already running: " + event_name_ + "\n");
  EXPECT_TRUE(IsAlive(guard));
  EXPECT_TRUE(IsAlive(agent_->id()));
  EXPECT_EQ(Noted("guard").size(), 1u);
}

TEST_F(AgentTest, OneThatIsStartedWhileTheFirstEndsTakesItsPlace) {
  Behave("ignore-requests");
  StartAgent({"--grace-ms", "500"});
  ASSERT_GT(WaitForGuard(1), 0);
  agent_->AskToEnd();
  EXPECT_TRUE(WaitFor([this] { return OpenEvent() == nullptr; }, kPatience))
      << "nobody counts on it any more";
  ChildProcess second(Command({"", "Client", "-process"}));
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
  EXPECT_TRUE(WaitFor([this] { return OpenEvent() != nullptr; }, kPatience));
  EXPECT_GT(WaitForGuard(2), 0);
  EXPECT_THAT(second.Output(), testing::Not(HasSubstr("already running")));
}

TEST_F(AgentTest, AnotherOneMayFollowOneThatWasKilled) {
  StartAgent();
  ASSERT_GT(WaitForGuard(1), 0);
  agent_->Kill();
  EXPECT_EQ(agent_->WaitExit(), kKilled);
  EXPECT_FALSE(OpenEvent());
  ChildProcess second(Command({"", "Client", "-process"}));
  EXPECT_GT(WaitForGuard(2), 0) << second.Output();
}

TEST_F(AgentTest, TheGuardIsToldRoleAndHost) {
  StartAgent({}, "/no/such/Host");
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_THAT(ReadAll(folder_ / "journal"), HasSubstr("arguments --role Client --host /no/such/Host\n"));
}

TEST_F(AgentTest, AGuardThatIsKilledIsStartedAgain) {
  StartAgent();
  for (std::size_t i = 1; i <= 3; ++i) {
    const ProcessId guard = WaitForGuard(i);
    ASSERT_GT(guard, 0);
    KillProcess(guard);
  }
  EXPECT_GT(WaitForGuard(4), 0);
  EXPECT_THAT(Log(), HasSubstr("), and is started again in"));
}

TEST_F(AgentTest, AGuardThatEndsByItselfIsStartedAgain) {
  Behave("end-at-once");
  StartAgent();
  ASSERT_GT(WaitForGuard(3), 0);
  Behave("run");
  ASSERT_TRUE(WaitFor([this] { return IsAlive(Noted("guard").back()); }, kPatience));
  EXPECT_THAT(Log(), HasSubstr("(exit status 0), and is started again in"));
}

TEST_F(AgentTest, WhatAKilledGuardLeftIsRemovedBeforeTheNextOne) {
  Behave("leave-daemon");
  StartAgent();
  const ProcessId daemon = WaitForNoted("daemon", 1);
  ASSERT_GT(daemon, 0);
  ASSERT_TRUE(IsAlive(daemon));
  KillProcess(WaitForGuard(1));
  ASSERT_GT(WaitForGuard(2), 0);
  EXPECT_FALSE(IsAlive(daemon));
}

TEST_F(AgentTest, AMissingGuardIsToldOnceAndStartedWhenItComes) {
  fs::remove(guard_path_);
  StartAgent();
  constexpr int kNoSuchFile = 2;  // on every system
  const std::string told = "The guard cannot be started, and is tried again: cannot start " +
                           guard_path_.string() + ": " + std::system_category().message(kNoSuchFile);
  ASSERT_TRUE(WaitFor([&] { return Log().find(told) != std::string::npos; }, kPatience));
  fs::create_directory(guard_path_);
  const std::string other = "it is a directory";
  ASSERT_TRUE(WaitFor([&] { return Log().find(other) != std::string::npos; }, kPatience));
  fs::remove(guard_path_);
  PlaceGuard();
  ASSERT_GT(WaitForGuard(1), 0);
  const std::string log = Log();
  EXPECT_EQ(log.find(other), log.rfind(other)) << log;
}

TEST_F(AgentTest, AskedByTheEventItEndsTheGuardAndAnswers) {
  StartAgent();
  const ProcessId guard = WaitForGuard(1);
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_FALSE(IsAlive(guard));
  EXPECT_THAT(Noted("asked"), ElementsAre(guard));
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
  EXPECT_THAT(Log(), HasSubstr("Asked to end by the event"));
}

TEST_F(AgentTest, AGuardThatIgnoresTheRequestIsKilledBeforeTheAnswer) {
  Behave("ignore-requests");
  StartAgent({"--grace-ms", "100"});
  const ProcessId guard = WaitForGuard(1);
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_FALSE(IsAlive(guard));
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
  EXPECT_THAT(Log(), HasSubstr("The guard did not end within 100 ms, and is killed"));
}

TEST_F(AgentTest, AskedByTheEventWithoutAGuardItAnswersToo) {
  fs::remove(guard_path_);
  StartAgent({"--restart-ms", "60000", "--longest-restart-ms", "60000"});
  ASSERT_TRUE(WaitFor([this] { return Log().find("cannot be started") != std::string::npos; }, kPatience));
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
}

TEST_F(AgentTest, ASignalEndsItAndTheGuard) {
  for (const auto ask : {&ChildProcess::AskToEnd, &ChildProcess::Interrupt}) {
    const std::size_t before = Noted("guard").size();
    ChildProcess agent(Command({"", "Client", "-process"}));
    const ProcessId guard = WaitForGuard(before + 1);
    ASSERT_GT(guard, 0);
    (agent.*ask)();
    EXPECT_EQ(agent.WaitExit(), kOrderly);
    EXPECT_FALSE(IsAlive(guard));
    EXPECT_EQ(Noted("asked").back(), guard);
  }
}

TEST_F(AgentTest, TheGuardDoesNotOutliveAnAgentThatIsKilled) {
  StartAgent();
  const ProcessId guard = WaitForGuard(1);
  ASSERT_GT(guard, 0);
  agent_->Kill();
  EXPECT_TRUE(WaitFor([&] { return !IsAlive(guard); }, kPatience));
  EXPECT_EQ(Noted("asked").size(), 0u);
}

TEST_F(AgentTest, AllEndsWhenTheHostWasKilled) {
  const fs::path host_path = folder_ / "Host.exe";
  const fs::path link = folder_ / "Link.exe";
  fs::copy_file(TEST_STAND_IN, host_path);
  std::error_code no_links;
  fs::create_symlink(host_path, link, no_links);
  ChildProcess host({host_path.string(), "--wait"});
  StartAgent({"--host-gone-ms", "50", "--host-interval-ms", "5"}, (no_links ? host_path : link).string());
  const ProcessId guard = WaitForGuard(1);
  ASSERT_GT(guard, 0);
  const std::string seen = "The host " + host_path.string() + " runs";
  ASSERT_TRUE(WaitFor([&] { return Log().find(seen) != std::string::npos; }, kPatience));
  EXPECT_TRUE(IsAlive(agent_->id()));
  host.Kill();
  EXPECT_EQ(agent_->WaitExit(), kOrderly);
  EXPECT_FALSE(IsAlive(guard));
  EXPECT_THAT(Noted("asked"), ElementsAre(guard));
}

TEST_F(AgentTest, ItsFolderMayHaveBlanksAndLettersOfAnyLanguage) {
  const fs::path place = folder_ / os::Utf8Path("my \xc3\xa4pp");
  fs::create_directory(place);
  fs::copy(folder_ / "TolmAgent", place / "TolmAgent", fs::copy_options::recursive);
  const std::string agent = (place / "TolmAgent" / "TolmAgent" / "TolmAgent_Exe64.exe").string();
  ChildProcess there({agent, "\xc3\xa4 b/no such Host", "Client", "-process"});
  const ProcessId guard = WaitForGuard(1);
  ASSERT_GT(guard, 0) << there.Output();
  EXPECT_EQ(ProcessesBelow(place).count(guard), 1u);
  EXPECT_THAT(ReadAll(place / "TolmAgent" / "log" / "agent.log"), HasSubstr("The agent begins"));
  there.AskToEnd();
  EXPECT_EQ(there.WaitExit(), kOrderly);
}

TEST_F(AgentTest, TheGuardsOutputIsInTheLog) {
  Behave("end-at-once");
  StartAgent();
  ASSERT_GT(WaitForGuard(2), 0);
  EXPECT_THAT(Log(), HasSubstr("guard: the stand-in["));
  EXPECT_THAT(Log(), HasSubstr("guard: speaks["));
}

TEST_F(AgentTest, WhereTheHostsFolderCannotBeWrittenTheLogIsTheUsers) {
  std::ofstream(log_path_.parent_path()) << "not a folder";
  StartAgent();
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_THAT(ReadAll(folder_ / "state/tolm-agent/agent.log"),
              HasSubstr(log_path_.string() + " cannot be written; this file is used"));
}

TEST_F(AgentTest, ExplainsItself) {
  ChildProcess help(Command({"--help"}));
  EXPECT_EQ(help.WaitExit(), kOrderly);
  EXPECT_THAT(help.Output(), HasSubstr("Keeps the guard running"));
  ChildProcess version(Command({"--version"}));
  EXPECT_EQ(version.WaitExit(), kOrderly);
  EXPECT_THAT(version.Output(), testing::MatchesRegex("TolmAgent .+\\..+\\..+\n"));
  ChildProcess wrong(Command({"--wrong"}));
  EXPECT_EQ(wrong.WaitExit(), (Exit{2, false}));
  EXPECT_THAT(wrong.Output(), HasSubstr("unknown option --wrong\nusage: "));
  EXPECT_THAT(Noted("guard"), ElementsAre());
}

}  // namespace
}  // namespace tolm::test
