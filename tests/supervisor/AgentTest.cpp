// The agent as a process, with a stand-in in the place of the guard.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ProcessWatch.h"
#include "common/AgentNames.h"
#include "os/ChildProcess.h"
#include "os/HiddenProcess.h"
#include "os/NamedEvent.h"
#include "support/Processes.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{40};

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

/// A program of this machine's, started and watched.
class Program {
 public:
  bool Start(const fs::path& path, std::vector<std::string> arguments) {
    std::string why;
    process_ =
        os::ChildProcess::Start({.program = path,
                                 .arguments = std::move(arguments),
                                 .on_output = [this](std::string_view piece) { printed_.Add(piece); },
                                 .on_end = [this](const os::ProcessEnd& end) { end_.Add(Describe(end)); }},
                                why);
    EXPECT_TRUE(process_) << why;
    return process_ != nullptr;
  }
  pid_t id() const { return static_cast<pid_t>(process_->id()); }
  std::string Printed() const { return printed_.Text(); }
  /// How it ended; empty when it does not.
  std::string End() const {
    WaitFor([this] { return !end_.Text().empty(); }, kPatience);
    return end_.Text();
  }

 private:
  tolm::test::Printed printed_;
  tolm::test::Printed end_;
  std::unique_ptr<os::ChildProcess> process_;
};

class AgentTest : public testing::Test {
 protected:
  AgentTest() {
    fs::create_directories(agent_path_.parent_path());
    fs::create_directories(guard_path_.parent_path());
    fs::copy_file(TEST_AGENT, agent_path_);
    PlaceGuard();
    Behave("run");
  }

  // A stand-in that is killed while it starts others may leave one of them behind.
  void TearDown() override { KillProcessesBelow(folder_); }

  void PlaceGuard() {
    // In one step: an agent that looks for it meanwhile finds all of it or nothing.
    const fs::path made = guard_path_.string() + ".new";
    fs::copy_file(TEST_STAND_IN, made);
    fs::rename(made, guard_path_);
  }
  void Behave(const std::string& mode) { std::ofstream(folder_ / "mode") << mode; }

  bool StartAgent(std::vector<std::string> times = {}, const std::string& host = "") {
    std::vector<std::string> arguments{
        host, "Client", "-process", "--restart-ms", "1", "--longest-restart-ms", "20"};
    arguments.insert(arguments.end(), times.begin(), times.end());
    return agent_.Start(agent_path_, std::move(arguments));
  }

  /// The numbers behind `word` in the journal, oldest first.
  std::vector<pid_t> Noted(const std::string& word) const {
    std::vector<pid_t> ids;
    std::istringstream journal(ReadAll(folder_ / "journal"));
    std::string line;
    while (std::getline(journal, line)) {
      if (line.starts_with(word + " ")) ids.push_back(std::atoi(line.c_str() + word.size() + 1));
    }
    return ids;
  }
  /// Waits for the `count`th start of the guard; its process, or -1.
  pid_t WaitForGuard(std::size_t count) const { return WaitForNoted("guard", count); }
  pid_t WaitForNoted(const std::string& word, std::size_t count) const {
    WaitFor([&] { return Noted(word).size() >= count; }, kPatience);
    const std::vector<pid_t> ids = Noted(word);
    return ids.size() >= count ? ids[count - 1] : -1;
  }

  std::unique_ptr<os::NamedEvent> OpenEvent() const { return os::NamedEvent::Open(event_name_); }
  std::string Log() const { return ReadAll(log_path_); }

  const RuntimeDirectory runtime_;
  const TempDirectory directory_;
  const fs::path folder_ = fs::canonical(directory_.path());
  const fs::path agent_path_ = folder_ / "TolmAgent/TolmAgent/TolmAgent_Exe64.exe";
  const fs::path guard_path_ = folder_ / "TolmAgent/TolmGuard/TolmGuard.exe";
  const fs::path log_path_ = folder_ / "TolmAgent/log/agent.log";
  const EnvironmentValue journal_folder_{"TEST_GUARD_FOLDER", folder_.string()};
  const EnvironmentValue state_folder_{"XDG_STATE_HOME", (folder_ / "state").string()};
  const std::string event_name_ = "Global\\" + agent_path_.string().substr(1) + "-agent";
  Program agent_;
};

TEST_F(AgentTest, ItsEventExistsWhileItRuns) {
  EXPECT_FALSE(OpenEvent());
  ASSERT_TRUE(StartAgent());
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_TRUE(OpenEvent()) << event_name_;
  ::kill(agent_.id(), SIGTERM);
  EXPECT_EQ(agent_.End(), "exit status 0");
  EXPECT_FALSE(OpenEvent());
}

TEST_F(AgentTest, TheFramesCommandLineStartsIt) {
  std::string path = agent_path_;
  std::replace(path.begin(), path.end(), '/', '\\');
  ASSERT_EQ(TolmLPCFrame::AgentEventName(path), event_name_);
  const os::StartedProcess started = os::StartHidden("\"" + path + "\" \"\" Client -process");
  ASSERT_TRUE(started.started) << started.error;
  const pid_t guard = WaitForGuard(1);
  EXPECT_GT(guard, 0);
  const auto event = OpenEvent();
  EXPECT_TRUE(event);
  if (event) {
    event->Set();
    EXPECT_TRUE(event->Wait(5000));
    EXPECT_TRUE(IsGone(guard));
  }
  EXPECT_TRUE(WaitUntilGone(static_cast<pid_t>(started.process_id)));
}

TEST_F(AgentTest, ASecondOneEndsAtOnceAndChangesNothing) {
  ASSERT_TRUE(StartAgent());
  const pid_t guard = WaitForGuard(1);
  Program second;
  ASSERT_TRUE(second.Start(agent_path_, {"", "Client", "-process"}));
  EXPECT_EQ(second.End(), "exit status 0");
  EXPECT_EQ(second.Printed(), "already running: " + event_name_ + "\n");
  EXPECT_FALSE(IsGone(guard));
  EXPECT_FALSE(IsGone(agent_.id()));
  EXPECT_EQ(Noted("guard").size(), 1u);
}

TEST_F(AgentTest, OneThatIsStartedWhileTheFirstEndsTakesItsPlace) {
  Behave("ignore-requests");
  ASSERT_TRUE(StartAgent({"--grace-ms", "500"}));
  ASSERT_GT(WaitForGuard(1), 0);
  ::kill(agent_.id(), SIGTERM);
  EXPECT_TRUE(WaitFor([this] { return OpenEvent() == nullptr; }, kPatience))
      << "nobody counts on it any more";
  Program second;
  ASSERT_TRUE(second.Start(agent_path_, {"", "Client", "-process"}));
  EXPECT_EQ(agent_.End(), "exit status 0");
  EXPECT_TRUE(WaitFor([this] { return OpenEvent() != nullptr; }, kPatience));
  EXPECT_GT(WaitForGuard(2), 0);
  EXPECT_THAT(second.Printed(), testing::Not(HasSubstr("already running")));
}

TEST_F(AgentTest, AnotherOneMayFollowOneThatWasKilled) {
  ASSERT_TRUE(StartAgent());
  ASSERT_GT(WaitForGuard(1), 0);
  ::kill(agent_.id(), SIGKILL);
  EXPECT_EQ(agent_.End(), "killed by signal 9");
  EXPECT_FALSE(OpenEvent());
  Program second;
  ASSERT_TRUE(second.Start(agent_path_, {"", "Client", "-process"}));
  EXPECT_GT(WaitForGuard(2), 0) << second.Printed();
}

TEST_F(AgentTest, TheGuardIsToldRoleAndHost) {
  ASSERT_TRUE(StartAgent({}, "/no/such/Host"));
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_THAT(ReadAll(folder_ / "journal"), HasSubstr("arguments --role Client --host /no/such/Host\n"));
}

TEST_F(AgentTest, AGuardThatIsKilledIsStartedAgain) {
  ASSERT_TRUE(StartAgent());
  for (std::size_t i = 1; i <= 3; ++i) {
    const pid_t guard = WaitForGuard(i);
    ASSERT_GT(guard, 0);
    ::kill(guard, SIGKILL);
  }
  EXPECT_GT(WaitForGuard(4), 0);
  EXPECT_THAT(Log(), HasSubstr("(killed by signal 9), and is started again in"));
}

TEST_F(AgentTest, AGuardThatEndsByItselfIsStartedAgain) {
  Behave("end-at-once");
  ASSERT_TRUE(StartAgent());
  ASSERT_GT(WaitForGuard(3), 0);
  Behave("run");
  ASSERT_TRUE(WaitFor([this] { return !IsGone(Noted("guard").back()); }, kPatience));
  EXPECT_THAT(Log(), HasSubstr("(exit status 0), and is started again in"));
}

TEST_F(AgentTest, WhatAKilledGuardLeftIsRemovedBeforeTheNextOne) {
  Behave("leave-daemon");
  ASSERT_TRUE(StartAgent());
  const pid_t daemon = WaitForNoted("daemon", 1);
  ASSERT_GT(daemon, 0);
  ASSERT_FALSE(IsGone(daemon));
  ::kill(WaitForGuard(1), SIGKILL);
  ASSERT_GT(WaitForGuard(2), 0);
  EXPECT_TRUE(IsGone(daemon));
}

TEST_F(AgentTest, AMissingGuardIsToldOnceAndStartedWhenItComes) {
  fs::remove(guard_path_);
  ASSERT_TRUE(StartAgent());
  const std::string told = "The guard cannot be started, and is tried again: cannot start " +
                           guard_path_.string() + ": No such file or directory";
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
  ASSERT_TRUE(StartAgent());
  const pid_t guard = WaitForGuard(1);
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_TRUE(IsGone(guard));
  EXPECT_THAT(Noted("asked"), ElementsAre(guard));
  EXPECT_EQ(agent_.End(), "exit status 0");
  EXPECT_THAT(Log(), HasSubstr("Asked to end by the event"));
}

TEST_F(AgentTest, AGuardThatIgnoresTheRequestIsKilledBeforeTheAnswer) {
  Behave("ignore-requests");
  ASSERT_TRUE(StartAgent({"--grace-ms", "100"}));
  const pid_t guard = WaitForGuard(1);
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_TRUE(IsGone(guard));
  EXPECT_EQ(agent_.End(), "exit status 0");
  EXPECT_THAT(Log(), HasSubstr("The guard did not end within 100 ms, and is killed"));
}

TEST_F(AgentTest, AskedByTheEventWithoutAGuardItAnswersToo) {
  fs::remove(guard_path_);
  ASSERT_TRUE(StartAgent({"--restart-ms", "60000", "--longest-restart-ms", "60000"}));
  ASSERT_TRUE(WaitFor([this] { return Log().find("cannot be started") != std::string::npos; }, kPatience));
  const auto event = OpenEvent();
  ASSERT_TRUE(event);
  event->Set();
  EXPECT_TRUE(event->Wait(5000));
  EXPECT_EQ(agent_.End(), "exit status 0");
}

TEST_F(AgentTest, ASignalEndsItAndTheGuard) {
  for (const int signal : {SIGTERM, SIGINT}) {
    Program agent;
    const std::size_t before = Noted("guard").size();
    ASSERT_TRUE(agent.Start(agent_path_, {"", "Client", "-process"}));
    const pid_t guard = WaitForGuard(before + 1);
    ASSERT_GT(guard, 0);
    ::kill(agent.id(), signal);
    EXPECT_EQ(agent.End(), "exit status 0");
    EXPECT_TRUE(IsGone(guard));
    EXPECT_EQ(Noted("asked").back(), guard);
  }
}

TEST_F(AgentTest, TheGuardDoesNotOutliveAnAgentThatIsKilled) {
  ASSERT_TRUE(StartAgent());
  const pid_t guard = WaitForGuard(1);
  ASSERT_GT(guard, 0);
  ::kill(agent_.id(), SIGKILL);
  EXPECT_TRUE(WaitUntilGone(guard));
  EXPECT_EQ(Noted("asked").size(), 0u);
}

TEST_F(AgentTest, AllEndsWhenTheHostWasKilled) {
  const fs::path host_path = folder_ / "Host.exe";
  const fs::path link = folder_ / "Link.exe";
  fs::copy_file(TEST_STAND_IN, host_path);
  fs::create_symlink(host_path, link);
  Program host;
  ASSERT_TRUE(host.Start(host_path, {"--wait"}));
  ASSERT_TRUE(StartAgent({"--host-gone-ms", "50", "--host-interval-ms", "5"}, link));
  const pid_t guard = WaitForGuard(1);
  ASSERT_GT(guard, 0);
  const std::string seen = "The host " + host_path.string() + " runs";
  ASSERT_TRUE(WaitFor([&] { return Log().find(seen) != std::string::npos; }, kPatience));
  EXPECT_FALSE(IsGone(agent_.id()));
  ::kill(host.id(), SIGKILL);
  EXPECT_EQ(agent_.End(), "exit status 0");
  EXPECT_TRUE(IsGone(guard));
  EXPECT_THAT(Noted("asked"), ElementsAre(guard));
}

TEST_F(AgentTest, TheGuardsOutputIsInTheLog) {
  Behave("end-at-once");
  ASSERT_TRUE(StartAgent());
  ASSERT_GT(WaitForGuard(2), 0);
  EXPECT_THAT(Log(), HasSubstr("guard: the stand-in["));
  EXPECT_THAT(Log(), HasSubstr("guard: speaks["));
}

TEST_F(AgentTest, WhereTheHostsFolderCannotBeWrittenTheLogIsTheUsers) {
  std::ofstream(log_path_.parent_path()) << "not a folder";
  ASSERT_TRUE(StartAgent());
  ASSERT_GT(WaitForGuard(1), 0);
  EXPECT_THAT(ReadAll(folder_ / "state/tolm-agent/agent.log"),
              HasSubstr(log_path_.string() + " cannot be written; this file is used"));
}

TEST_F(AgentTest, WithoutARuntimeFolderItCannotBegin) {
  std::ofstream(runtime_.endpoints()) << "not a folder";
  ASSERT_TRUE(StartAgent());
  EXPECT_EQ(agent_.End(), "exit status 1");
  EXPECT_THAT(agent_.Printed(), HasSubstr("is not a directory"));
}

TEST_F(AgentTest, ExplainsItself) {
  Program help;
  ASSERT_TRUE(help.Start(agent_path_, {"--help"}));
  EXPECT_EQ(help.End(), "exit status 0");
  EXPECT_THAT(help.Printed(), HasSubstr("Keeps the guard running"));
  Program version;
  ASSERT_TRUE(version.Start(agent_path_, {"--version"}));
  EXPECT_EQ(version.End(), "exit status 0");
  EXPECT_THAT(version.Printed(), testing::MatchesRegex("TolmAgent [0-9.]+\n"));
  Program wrong;
  ASSERT_TRUE(wrong.Start(agent_path_, {"--wrong"}));
  EXPECT_EQ(wrong.End(), "exit status 2");
  EXPECT_THAT(wrong.Printed(), HasSubstr("unknown option --wrong\nusage: "));
  EXPECT_THAT(Noted("guard"), ElementsAre());
}

}  // namespace
}  // namespace tolm::test
