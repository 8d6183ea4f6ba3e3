// Children, their output and their end; trees that end as a whole; and what happens to them when the
// supervisor is killed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "os/ChildProcess.h"
#include "supervisor/Actor.h"
#include "supervisor/SystemRoles.h"
#include "support/System.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

using testing::HasSubstr;
using testing::Not;
using tolm::test::Actor;
using tolm::test::Family;
using tolm::test::IsGone;
using tolm::test::KilledText;
using tolm::test::KillProcess;
using tolm::test::ProcessId;
using tolm::test::ThisProgram;
using tolm::test::WaitUntilGone;
namespace fs = std::filesystem;

TEST(OsChildProcess, AllOutputArrivesInOrderAndThenItsEnd) {
  constexpr int kLines = 20000;
  std::string expected;
  for (int i = 0; i < kLines; ++i) expected += "line " + std::to_string(i) + "\n";

  Actor actor({"print", std::to_string(kLines)});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  ASSERT_TRUE(actor.WaitEndOfOutput());
  EXPECT_TRUE(actor.printed().Text() == expected) << actor.printed().Text().size() << " bytes";
  actor.Destroy();
  EXPECT_EQ(actor.ends(), 1);
  EXPECT_EQ(actor.ends_of_output(), 1);
  EXPECT_EQ(actor.pieces_behind_the_end(), 0);
}

TEST(OsChildProcess, WhatItSaidLastIsThereWhenItsEndIsTold) {
  const std::string expected = "line 0\nline 1\nline 2\n";
  std::string printed;
  std::string at_end;
  std::promise<void> ended;
  std::string why;
  const auto child = ChildProcess::Start({.program = ThisProgram().string(),
                                          .arguments = {"--role", "print", "3"},
                                          .on_output = [&](std::string_view piece) { printed += piece; },
                                          .on_end =
                                              [&](const ProcessEnd&) {
                                                at_end = printed;
                                                ended.set_value();
                                              }},
                                         why);
  ASSERT_TRUE(child) << why;
  ended.get_future().wait();
  EXPECT_EQ(at_end, expected);
}

TEST(OsChildProcess, TheEndTellsTheExitStatus) {
  Actor actor({"exit", "3"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->exit_status, 3);
  EXPECT_EQ(end->signal, 0);
  EXPECT_EQ(Describe(*end), "exit status 3");
  EXPECT_TRUE(actor.process().HasEnded());
  EXPECT_TRUE(actor.process().WaitEnd(std::chrono::milliseconds(0)));
}

TEST(OsChildProcess, WithoutHandlersOutputGoesNowhere) {
  std::string why;
  const auto child = ChildProcess::Start(
      {.program = ThisProgram().string(), .arguments = {"--role", "print", "20000"}}, why);
  ASSERT_TRUE(child) << why;
  EXPECT_TRUE(child->WaitEnd(Actor::kPatience));
}

TEST(OsChildProcess, AHandlerThatThrowsHarmsNobody) {
  std::promise<void> ended;
  std::string why;
  const auto child = ChildProcess::Start({.program = ThisProgram().string(),
                                          .arguments = {"--role", "print", "3"},
                                          .on_output = [](std::string_view) { throw std::string("no"); },
                                          .on_end =
                                              [&](const ProcessEnd&) {
                                                ended.set_value();
                                                throw 1;
                                              }},
                                         why);
  ASSERT_TRUE(child) << why;
  EXPECT_EQ(ended.get_future().wait_for(Actor::kPatience), std::future_status::ready);
}

TEST(OsChildProcess, ThereIsNothingOnStdin) {
  Actor actor({"read-input"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(actor.printed().WaitForText("nothing to read\n"));
}

TEST(OsChildProcess, FolderArgumentsAndEnvironmentAreAsAskedFor) {
  const tolm::test::TempDirectory directory;
  const fs::path folder = directory.path() / u8"with blanks and \u00E4\u20AC";
  fs::create_directory(folder);
  const tolm::test::EnvironmentValue kept("TEST_KEPT", std::string("as it was"));
  const tolm::test::EnvironmentValue replaced("TEST_ADDED", std::string("old"));
  Actor actor({"show-surroundings", "a b", "", "\"c\\", "\xC3\xA4\xE2\x82\xAC"});
  actor.request().working_folder = folder.string();
  actor.request().environment = {{"TEST_ADDED", "new = value \xE2\x82\xAC"}};
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  const std::string printed = actor.printed().Text();
  EXPECT_THAT(printed, HasSubstr("folder " + fs::canonical(folder).string() + "\n"));
  EXPECT_THAT(printed, HasSubstr("argument a b\nargument \nargument \"c\\\nargument \xC3\xA4\xE2\x82\xAC\n"));
  EXPECT_THAT(printed, HasSubstr("TEST_ADDED new = value \xE2\x82\xAC\n"));
  EXPECT_THAT(printed, HasSubstr("TEST_KEPT as it was\n"));
}

TEST(OsChildProcess, AMissingWorkingFolderIsNamed) {
  std::string why;
  EXPECT_FALSE(
      ChildProcess::Start({.program = ThisProgram().string(), .working_folder = "/no/such/folder"}, why));
  EXPECT_THAT(why, HasSubstr("cannot go to the folder /no/such/folder"));
}

TEST(OsChildProcess, TextsThatWouldBeCutOffAreRefused) {
  std::string why;
  EXPECT_FALSE(
      ChildProcess::Start({.program = ThisProgram().string(), .arguments = {std::string("a\0b", 3)}}, why));
  EXPECT_THAT(why, HasSubstr("is not a possible one"));
  why.clear();
  EXPECT_FALSE(ChildProcess::Start({.program = ThisProgram().string(), .environment = {{"A=B", "c"}}}, why));
  EXPECT_THAT(why, HasSubstr("is not a possible one"));
}

TEST(OsChildProcess, ARelativePathIsTheCallers) {
  const tolm::test::TempDirectory folder;
  Actor actor({"show-surroundings"});
  actor.request().program = fs::relative(ThisProgram()).string();
  actor.request().working_folder = folder.path().string();
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_THAT(actor.printed().Text(), HasSubstr("folder " + fs::canonical(folder.path()).string() + "\n"));
}

TEST(OsChildProcess, AsksAProcessToEnd) {
  Actor actor({"end-when-asked"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_EQ(actor.printed().WaitForNumberAfter("ready"), actor.id());
  actor.process().AskToEnd();
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->exit_status, 7);
  actor.process().AskToEnd();
  actor.process().KillTree();
}

TEST(OsChildProcess, LivesLongerThanTheThreadThatStartedIt) {
  Actor actor({"end-when-asked"});
  bool started = false;
  std::thread([&] { started = actor.Start(); }).join();
  ASSERT_TRUE(started) << actor.why();
  ASSERT_GT(actor.printed().WaitForNumberAfter("ready"), 0);
  actor.process().AskToEnd();
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(Describe(*end), "exit status 7");
}

TEST(OsChildProcess, KillsAProcessThatIgnoresRequests) {
  Actor actor({"ignore-requests"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_GT(actor.printed().WaitForNumberAfter("ready"), 0);
  actor.process().AskToEnd();
  EXPECT_FALSE(actor.process().WaitEnd(std::chrono::milliseconds(20)));
  actor.process().KillTree();
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(Describe(*end), KilledText());
}

TEST(OsChildProcess, ATreeEndsAsAWholeWithThoseThatLeftGroupAndSession) {
  Actor actor({"family"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const Family family(actor.printed());
  ASSERT_TRUE(family.IsComplete()) << actor.printed().Text();
  actor.process().KillTree();
  EXPECT_EQ(family.CountLeft(), 0u);
  EXPECT_TRUE(actor.WaitEndOfOutput());
}

TEST(OsChildProcess, AGroupThatKeepsStartingProcessesIsKilled) {
  Actor actor({"breed"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_GT(actor.printed().WaitForNumberAfter("ready"), 0);
  actor.process().KillTree();
  // The last one that could write is gone, and not because it had enough.
  ASSERT_TRUE(actor.WaitEndOfOutput());
  EXPECT_THAT(actor.printed().Text(), Not(HasSubstr("old age")));
}

TEST(OsChildProcess, WhatAProcessLeftWhenItEndedIsKilledWithItsTree) {
  Actor actor({"leave-daemon"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const ProcessId daemon = actor.printed().WaitForNumberAfter("daemon");
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_FALSE(IsGone(daemon));
  actor.process().KillTree();
  EXPECT_TRUE(IsGone(daemon));
}

TEST(OsChildProcess, DestroyingARunningOneKillsItsTreeAndTellsItsEnd) {
  Actor actor({"family"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const Family family(actor.printed());
  ASSERT_TRUE(family.IsComplete()) << actor.printed().Text();
  actor.Destroy();
  EXPECT_EQ(family.CountLeft(), 0u);
  EXPECT_EQ(actor.ends(), 1);
  EXPECT_EQ(actor.ends_of_output(), 1);
  EXPECT_EQ(Describe(actor.WaitEnd().value()), KilledText());
}

TEST(OsChildProcess, ManyThreadsMayStartAtTheSameTime) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&good, i] {
      for (int round = 0; round < 5; ++round) {
        const std::string status = std::to_string(10 * i + round);
        Actor actor({"say-and-exit", status});
        if (!actor.Start()) continue;
        const auto end = actor.WaitEnd();
        if (end && end->exit_status == 10 * i + round && actor.WaitEndOfOutput() &&
            actor.printed().Text() == status + "\n") {
          ++good;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 40);
}

TEST(OsSupervisor, ChildrenDieWithASupervisorThatIsKilled) {
  Actor supervisor({"supervise", "wait"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const ProcessId child = supervisor.printed().WaitForNumberAfter("ready");
  ASSERT_GT(child, 0);
  ASSERT_FALSE(IsGone(child));
  KillProcess(supervisor.id());
  EXPECT_TRUE(WaitUntilGone(child));
}

TEST(OsSupervisor, WhatAKilledSupervisorLeftIsInTheTreeOfTheOneAbove) {
  Actor supervisor({"supervise", "family"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const Family family(supervisor.printed());
  ASSERT_TRUE(family.IsComplete()) << supervisor.printed().Text();
  KillProcess(supervisor.id());
  ASSERT_TRUE(supervisor.WaitEnd());
  supervisor.process().KillTree();
  EXPECT_EQ(family.CountLeft(), 0u);
}

TEST(OsSupervisor, OneThatAdoptsKillsWhatAnEndedChildLeft) {
  Actor supervisor({"supervise-and-adopt", "leave-daemon"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const ProcessId daemon = supervisor.printed().WaitForNumberAfter("daemon");
  ASSERT_GT(daemon, 0);
  EXPECT_TRUE(WaitUntilGone(daemon));
  ASSERT_TRUE(supervisor.printed().WaitForText("ended: exit status 0\n"));
  EXPECT_FALSE(supervisor.process().HasEnded());
}

TEST(OsRunningExecutable, IsFoundByItsPath) {
  const tolm::test::TempDirectory folder;
  const fs::path program = tolm::test::ProgramFile(fs::canonical(folder.path()) / "program");
  fs::copy_file(ThisProgram(), program);
  EXPECT_FALSE(IsExecutableRunning(program.string()));
  Actor actor({"wait"});
  actor.request().program = program.string();
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(IsExecutableRunning(program.string()));
  EXPECT_TRUE(IsExecutableRunning(ThisProgram().string()));
  actor.process().KillTree();
  EXPECT_FALSE(IsExecutableRunning(program.string()));
  EXPECT_FALSE(IsExecutableRunning(""));
  EXPECT_FALSE(IsExecutableRunning(program.filename().string()));
}

class OsProcessLock : public testing::Test {
 protected:
  std::unique_ptr<ProcessLock> Take(const std::string& name) { return ProcessLock::TryTake(name, why_); }

  const tolm::test::RuntimeDirectory runtime_;
  // Of this process alone: names may be the whole system's.
  const std::string name_ = "name " + std::to_string(tolm::test::OwnProcessId());
  std::string why_;
};

TEST_F(OsProcessLock, IsHeldByOneAtATime) {
  auto lock = Take(name_);
  ASSERT_TRUE(lock) << why_;
  EXPECT_FALSE(Take(name_));
  EXPECT_EQ(why_, "");
  EXPECT_TRUE(Take(name_ + " and more")) << why_;
  lock.reset();
  EXPECT_TRUE(Take(name_)) << why_;
  EXPECT_TRUE(!fs::exists(runtime_.endpoints()) || fs::is_empty(runtime_.endpoints()))
      << "nothing is left behind";
}

TEST_F(OsProcessLock, IsFreedWhenItsHolderIsKilled) {
  Actor holder({"hold-lock", name_});
  ASSERT_TRUE(holder.Start()) << holder.why();
  ASSERT_GT(holder.printed().WaitForNumberAfter("ready"), 0) << holder.printed().Text();
  EXPECT_FALSE(Take(name_));
  EXPECT_EQ(why_, "");
  KillProcess(holder.id());
  ASSERT_TRUE(holder.process().WaitEnd(Actor::kPatience));
  EXPECT_TRUE(Take(name_)) << why_;
}

TEST_F(OsProcessLock, AnyTextIsAName) {
  const std::string longest(5000, '/');
  for (const std::string& name :
       {std::string(), std::string("Global\\C:/App/Agent.exe-agent"), std::string("a\0b", 3), longest}) {
    const auto lock = Take(name);
    ASSERT_TRUE(lock) << name << ": " << why_;
    EXPECT_FALSE(Take(name));
    EXPECT_TRUE(Take(name + "x")) << why_;
    EXPECT_TRUE(Take("x" + name)) << why_;
  }
}

}  // namespace
}  // namespace os
