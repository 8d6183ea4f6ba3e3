// What the agent is made of, without processes and without time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "HostWatch.h"
#include "Inbox.h"
#include "Layout.h"
#include "Options.h"
#include "OutputLines.h"
#include "RestartBackoff.h"
#include "UserState.h"
#include "support/System.h"
#include "support/TempDirectory.h"

namespace tolm::agent {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

RestartBackoff BackoffWith(double random) {
  return RestartBackoff({}, [random] { return random; });
}

TEST(RestartBackoff, DoublesFrom100MillisecondsTo5Seconds) {
  RestartBackoff backoff = BackoffWith(0.5);
  std::vector<long> delays;
  for (int i = 0; i < 9; ++i) delays.push_back(static_cast<long>(backoff.Next(milliseconds(0)).count()));
  EXPECT_THAT(delays, ElementsAre(100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000));
}

TEST(RestartBackoff, VariesByAFifth) {
  EXPECT_EQ(BackoffWith(0).Next(milliseconds(0)), milliseconds(80));
  EXPECT_EQ(BackoffWith(1).Next(milliseconds(0)), milliseconds(120));
  // The delay that was varied is not the one that is doubled.
  RestartBackoff backoff = BackoffWith(1);
  backoff.Next(milliseconds(0));
  EXPECT_EQ(backoff.Next(milliseconds(0)), milliseconds(240));
}

TEST(RestartBackoff, BeginsAgainAfterAStableRun) {
  RestartBackoff backoff = BackoffWith(0.5);
  for (int i = 0; i < 5; ++i) backoff.Next(milliseconds(0));
  EXPECT_EQ(backoff.Next(milliseconds(29999)), milliseconds(3200));
  EXPECT_EQ(backoff.Next(milliseconds(30000)), milliseconds(100));
  EXPECT_EQ(backoff.Next(milliseconds(10)), milliseconds(200));
}

class HostWatchTest : public testing::Test {
 protected:
  bool IsGoneAfter(int seconds) { return watch_.IsGone(begin_ + std::chrono::seconds(seconds)); }

  const HostWatch::TimePoint begin_ = std::chrono::steady_clock::now();
  bool running_ = true;
  HostWatch watch_{std::chrono::seconds(10), [this] { return running_; }};
};

TEST_F(HostWatchTest, AHostIsGoneWhenItHasNotRunForAWhile) {
  EXPECT_FALSE(IsGoneAfter(0));
  running_ = false;
  EXPECT_FALSE(IsGoneAfter(1));
  EXPECT_FALSE(IsGoneAfter(9));
  EXPECT_TRUE(IsGoneAfter(10));
}

TEST_F(HostWatchTest, AHostThatComesBackIsNotGone) {
  EXPECT_FALSE(IsGoneAfter(0));
  running_ = false;
  EXPECT_FALSE(IsGoneAfter(9));
  running_ = true;
  EXPECT_FALSE(IsGoneAfter(11));
  running_ = false;
  EXPECT_FALSE(IsGoneAfter(20));
  EXPECT_TRUE(IsGoneAfter(21));
}

TEST_F(HostWatchTest, AHostThatWasNeverSeenIsNotMissed) {
  running_ = false;
  EXPECT_FALSE(IsGoneAfter(0));
  EXPECT_FALSE(IsGoneAfter(1000));
  EXPECT_FALSE(watch_.WasSeen());
}

class CommandLine : public testing::Test {
 protected:
  Order Read(std::vector<std::string> words) {
    words.insert(words.begin(), "/a/TolmAgent_Exe64.exe");
    return ReadCommandLine(words, options_, fault_);
  }

  Options options_;
  std::string fault_;
};

TEST_F(CommandLine, TheFramesFormIsUnderstood) {
  ASSERT_EQ(Read({"/opt/Host", "Client", "-process"}), Order::kRun) << fault_;
  EXPECT_EQ(options_.agent_path, "/a/TolmAgent_Exe64.exe");
  EXPECT_EQ(options_.host_path, "/opt/Host");
  EXPECT_EQ(options_.role, "Client");
}

TEST_F(CommandLine, AnEmptyHostPathIsOne) {
  ASSERT_EQ(Read({"", "Client", "-process"}), Order::kRun) << fault_;
  EXPECT_EQ(options_.host_path, "");
}

TEST_F(CommandLine, TimesMayBeGiven) {
  ASSERT_EQ(Read({"--grace-ms", "7", "/opt/Host", "Client", "-process", "--restart-ms", "9"}), Order::kRun);
  EXPECT_EQ(options_.times.grace, milliseconds(7));
  EXPECT_EQ(options_.times.restart, milliseconds(9));
  EXPECT_EQ(options_.times.host_gone, milliseconds(10000));
}

TEST_F(CommandLine, TheGuardsTimeLeavesTheAnswerTimeToArrive) {
  constexpr milliseconds kFrameWaits{5000};
  constexpr milliseconds kKillTakesAtMost{1000};
  EXPECT_LT(Times().grace + kKillTakesAtMost, kFrameWaits);
}

TEST_F(CommandLine, HelpAndVersionAreShown) {
  EXPECT_EQ(Read({"--help"}), Order::kShowHelp);
  EXPECT_EQ(Read({"x", "-h"}), Order::kShowHelp);
  EXPECT_EQ(Read({"--version"}), Order::kShowVersion);
  EXPECT_THAT(HelpText(), HasSubstr(UsageLine()));
}

TEST_F(CommandLine, AnythingElseIsRefusedWithAReason) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, "a main process path and a role are needed"},
      {{"/opt/Host"}, "a main process path and a role are needed"},
      {{"/opt/Host", "Client"}, "-process is missing"},
      {{"/opt/Host", "Client", "more", "-process"}, "and nothing else"},
      {{"/opt/Host", "Server", "-process"}, "unknown role Server"},
      {{"/opt/Host", "Client", "-process", "--fast"}, "unknown option --fast"},
      {{"/opt/Host", "Client", "-process", "--grace-ms"}, "--grace-ms needs a number"},
      {{"/opt/Host", "Client", "-process", "--grace-ms", "0"}, "--grace-ms needs a number"},
      {{"/opt/Host", "Client", "-process", "--grace-ms", "5s"}, "--grace-ms needs a number"},
      {{"/opt/Host", "Client", "-process", "--grace-ms", "99999999999999999999"},
       "--grace-ms needs a number"},
  };
  for (const auto& [words, reason] : cases) {
    EXPECT_EQ(Read(words), Order::kRefuse);
    EXPECT_THAT(fault_, HasSubstr(reason));
  }
}

TEST(OutputLines, PiecesBecomeLines) {
  std::vector<std::string> lines;
  OutputLines output([&lines](const std::string& line) { lines.push_back(line); });
  output.Add("one\ntw");
  output.Add("o\r\n\nthr");
  EXPECT_THAT(lines, ElementsAre("one", "two", ""));
  output.Add("ee");
  output.Add("");
  EXPECT_THAT(lines, ElementsAre("one", "two", "", "three"));
  output.Add("");
  EXPECT_EQ(lines.size(), 4u);
}

TEST(OutputLines, ALineWithoutEndIsCut) {
  std::vector<std::string> lines;
  OutputLines output([&lines](const std::string& line) { lines.push_back(line); });
  output.Add(std::string(OutputLines::kLongest + 1, 'x') + "\n");
  EXPECT_THAT(lines, ElementsAre(std::string(OutputLines::kLongest, 'x'), "x"));
}

/// What absolute paths begin with: nothing, or a drive.
std::string Drive() {
  return std::filesystem::current_path().root_name().string();
}

/// As the system writes it.
std::string Native(const std::filesystem::path& path) {
  return std::filesystem::path(path).make_preferred().string();
}

/// The event of an agent at `path`, which has no separator in front.
std::string Event(const std::string& path) {
  return "Global\\" + path + "-agent";
}

TEST(AgentLayout, LiesBelowTheHostsFolder) {
  const std::string app = Drive() + "/opt/app";
  const test::UserState state(Native(Drive() + "/state"));
  const Layout layout = FindLayout(app + "/TolmAgent/TolmAgent/TolmAgent_Exe64.exe");
  EXPECT_EQ(layout.event_name,
            Event((Drive().empty() ? app.substr(1) : app) + "/TolmAgent/TolmAgent/TolmAgent_Exe64.exe"));
  EXPECT_EQ(layout.guard_path, Native(app + "/TolmAgent/TolmGuard/TolmGuard.exe"));
  EXPECT_EQ(layout.log_path, Native(app + "/TolmAgent/log/agent.log"));
  EXPECT_EQ(layout.user_log_path, Native(Drive() + "/state/tolm-agent/agent.log"));
}

TEST(AgentLayout, TheEventsNameIsTheOneThatTheFrameMakesOfTheSamePath) {
  EXPECT_EQ(FindLayout("/opt/x/../app/TolmAgent/TolmAgent/TolmAgent_Exe64.exe").event_name,
            Event("opt/app/TolmAgent/TolmAgent/TolmAgent_Exe64.exe"));
  EXPECT_EQ(FindLayout("C:\\x\\..\\app\\a.exe").event_name, Event("C:/app/a.exe"));
  EXPECT_EQ(FindLayout("../../a.exe").event_name, Event("../../a.exe"));
  EXPECT_EQ(FindLayout("TolmAgent/TolmAgent/TolmAgent_Exe64.exe").event_name,
            Event("TolmAgent/TolmAgent/TolmAgent_Exe64.exe"));
}

TEST(AgentLayout, ARelativePathIsRelativeToTheCurrentFolder) {
  EXPECT_EQ(FindLayout("TolmAgent/TolmAgent/agent.exe").guard_path,
            Native(std::filesystem::current_path() / "TolmAgent/TolmGuard/TolmGuard.exe"));
}

TEST(AgentLayout, AUserWithoutAStateFolderHasNoLogThere) {
  const test::UserState none;
  EXPECT_EQ(FindLayout("/a/b/c").user_log_path, "");
}

TEST(AgentLayout, TheHostIsNamedAsTheSystemShowsIt) {
  const test::TempDirectory folder;
  const std::filesystem::path program = test::ThisProgram();
  EXPECT_EQ(ResolvedExecutable((program.parent_path() / "." / program.filename()).generic_string()),
            std::filesystem::canonical(program).string());
  EXPECT_EQ(ResolvedExecutable((folder.path() / "missing").string()), "");
  EXPECT_EQ(ResolvedExecutable(""), "");
}

TEST(AgentLayout, LinksToTheHostAreResolved) {
  const test::TempDirectory folder;
  const std::filesystem::path link = folder.path() / "link";
  std::error_code error;
  std::filesystem::create_symlink(test::ThisProgram(), link, error);
  if (error) GTEST_SKIP() << "no links can be made here: " << error.message();
  EXPECT_EQ(ResolvedExecutable(link.string()), std::filesystem::canonical(test::ThisProgram()).string());
}

TEST(AgentInbox, ARequestToEndComesFirstAndStays) {
  Inbox inbox;
  os::ProcessEnd end;
  const auto now = std::chrono::steady_clock::now();
  EXPECT_EQ(inbox.Wait(now, end), Inbox::News::kNone);
  inbox.GuardEnded({.exit_status = 4});
  EXPECT_EQ(inbox.Wait(now, end), Inbox::News::kGuardEnded);
  EXPECT_EQ(end.exit_status, 4);
  EXPECT_EQ(inbox.Wait(now, end), Inbox::News::kNone);

  inbox.GuardEnded({});
  inbox.AskToEnd(false);
  EXPECT_EQ(inbox.Wait(now, end), Inbox::News::kAskedToEnd);
  EXPECT_FALSE(inbox.WasAskedByEvent());
  inbox.AskToEnd(true);
  inbox.AskToEnd(false);
  EXPECT_EQ(inbox.Wait(now, end), Inbox::News::kAskedToEnd);
  EXPECT_TRUE(inbox.WasAskedByEvent());
}

}  // namespace
}  // namespace tolm::agent
