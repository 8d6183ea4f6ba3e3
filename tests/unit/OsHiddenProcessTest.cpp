// Programs that live on their own, and their removal by path.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HiddenProcessTest.h"
#include "OsRoles.h"
#include "os/HiddenProcess.h"
#include "support/ChildProcess.h"
#include "support/System.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using tolm::test::ChildProcess;
using tolm::test::Exit;
using tolm::test::InRole;
using tolm::test::ProcessesBelow;
using tolm::test::WaitFor;

// -------------------------------------------------------------------------------------- Starting

class OsHiddenProcess : public HiddenProcessTest {};

TEST_F(OsHiddenProcess, RunsUnderTheIdThatIsTold) {
  const fs::path program = Program("sleeper");
  const long id = StartSleeper(program);
  ASSERT_TRUE(Lives(id));
  EXPECT_EQ(ProcessesBelow(folder_)[id], program);
}

TEST_F(OsHiddenProcess, ReceivesItsArguments) {
  Start(WithOutput(Program("program")) + " show-surroundings \"a b\" \"\" c\\d e\\\"f -process");
  EXPECT_THAT(WaitOutput(),
              HasSubstr("argument a b\nargument \nargument c\\d\nargument e\"f\nargument -process\n"));
}

TEST_F(OsHiddenProcess, InheritsEnvironmentAndCurrentDirectory) {
  const tolm::test::EnvironmentValue variable("TEST_KEPT", "some value");
  const fs::path program = Program("a folder/with blanks/program");
  const fs::path before = fs::current_path();
  fs::current_path(folder_);
  Start(WithOutput(program) + " show-surroundings");
  fs::current_path(before);
  const std::string output = WaitOutput();
  EXPECT_THAT(output, HasSubstr("folder " + folder_.string() + "\n"));
  EXPECT_THAT(output, HasSubstr("TEST_KEPT some value\n"));
}

TEST_F(OsHiddenProcess, LivesOnWhenTheCallerEnds) {
  const fs::path program = Program("sleeper");
  ChildProcess caller(InRole({"start-hidden", Sleeping(program, MarkOf(0))}));
  const auto told = caller.WaitForLine("started ");
  EXPECT_TRUE(Ends(caller.id()));
  EXPECT_TRUE(WaitFor([this] { return fs::exists(MarkOf(0)); }));
  const auto processes = ProcessesBelow(folder_);
  EXPECT_EQ(processes.size(), 1u);
  for (const auto& [id, path] : processes) {
    EXPECT_EQ(told, "started " + std::to_string(id));
    tolm::test::KillProcess(id);
    EXPECT_TRUE(Ends(id));
  }
}

TEST_F(OsHiddenProcess, WhatCannotBeStartedIsToldWithTheSystemsCode) {
  for (const std::string& command_line : {std::string("\"\""), (folder_ / "missing").string(),
                                          (folder_ / "missing" / "program").string(), folder_.string()}) {
    const StartedProcess process = StartHidden(command_line);
    EXPECT_FALSE(process.started) << command_line;
    EXPECT_EQ(process.process_id, 0) << command_line;
    EXPECT_NE(process.error, 0) << command_line;
  }
}

TEST_F(OsHiddenProcess, ManyThreadsMayStartAtTheSameTime) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5;
  const fs::path program = Program("sleeper");
  std::mutex mutex;
  std::vector<StartedProcess> all;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < kEach; ++j) {
        const auto number = static_cast<std::size_t>(kEach * i + j);
        const StartedProcess process = StartHidden(Sleeping(program, MarkOf(number)));
        const std::lock_guard lock(mutex);
        all.push_back(process);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_TRUE(WaitFor([&] { return fs::exists(MarkOf(i)); })) << i;
  }
  auto running = ProcessesBelow(folder_);
  EXPECT_EQ(running.size(), all.size());
  for (const StartedProcess& process : all) {
    EXPECT_TRUE(process.started) << process.error;
    EXPECT_EQ(running[process.process_id], program);
  }
  for (const auto& [id, path] : running) tolm::test::KillProcess(id);
  for (const auto& [id, path] : running) EXPECT_TRUE(Ends(id));
}

// -------------------------------------------------------------------------------------- Removing

class OsRemoval : public HiddenProcessTest {};

TEST_F(OsRemoval, EndsEveryProcessOfThePathAndNoOther) {
  const fs::path program = Program("app/sleeper");
  const long first = StartSleeper(program);
  const long second = StartSleeper(program);
  const long other = StartSleeper(Program("app/sleeper2"));
  const long another = StartSleeper(Program("deep/app/sleeper"));
  RunRemovalCommand(Removal(Doubled(program)));
  EXPECT_TRUE(Ends(first));
  EXPECT_TRUE(Ends(second));
  EXPECT_TRUE(Lives(other));
  EXPECT_TRUE(Lives(another));
}

TEST_F(OsRemoval, SlashesAndBackslashesMayBeMixed) {
  const fs::path program = Program("app/sleeper");
  const long id = StartSleeper(program);
  RunRemovalCommand(Removal(folder_.generic_string() + "\\\\app\\\\" + program.filename().string()));
  EXPECT_TRUE(Ends(id));
}

TEST_F(OsRemoval, SparesTheCaller) {
  const fs::path self = Program("self");
  ChildProcess caller({self.string(), "--role", "run-removal", Removal(Doubled(self))});
  EXPECT_EQ(caller.WaitExit(), (Exit{0, false}));
}

TEST_F(OsRemoval, AnyOtherCommandDoesNothing) {
  const fs::path program = Program("sleeper");
  ChildProcess sleeper({program.string(), "--role", "end-when-asked"});
  ASSERT_TRUE(sleeper.WaitForLine("ready"));
  const std::string path = program.generic_string();
  const std::string doubled = Doubled(program);
  for (const std::string& command :
       {std::string(), path, "wmic process where ExecutablePath=\"" + doubled + "\"",
        "wmic process where ExecutablePath=" + doubled + " delete",
        "wmic process where ExecutablePath='" + doubled + "' delete",
        "wmic process where ExecutablePath=\"" + doubled + " delete",
        "wmic  process where ExecutablePath=\"" + doubled + "\" delete",
        "wmic process where Name=\"" + doubled + "\" delete", " " + Removal(doubled), Removal(doubled) + " ",
        Removal(doubled) + "d", Removal(""), Removal(doubled + "\\"), Removal(doubled + "\" delete & \""),
        Removal(Replaced(path, "/", "\\")), Removal("\"" + doubled + "\""), Removal(path.substr(1)),
        Removal("sleeper")}) {
    RunRemovalCommand(command);
    EXPECT_TRUE(Lives(sleeper.id())) << command;
  }
  sleeper.AskToEnd();
  EXPECT_EQ(sleeper.WaitExit(), (Exit{7, false})) << "nothing else ended it before";
}

TEST_F(OsRemoval, APathThatNobodyRunsIsNoFault) {
  const fs::path program = Program("sleeper");
  RunRemovalCommand(Removal(Doubled(program)));
  RunRemovalCommand(Removal(Doubled(folder_ / "missing")));
  EXPECT_TRUE(fs::exists(program));
}

}  // namespace
}  // namespace os
