// Programs that live on their own, and their removal by path. The programs are copies of "sleep" and
// scripts in a directory of each test's own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ForkedChild.h"
#include "os/HiddenProcess.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::ForkedChild;
using tolm::test::IsAlive;
using tolm::test::WaitFor;

std::string Content(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

/// What a process has open, by number.
std::map<std::string, std::string> Descriptors(long id) {
  std::map<std::string, std::string> descriptors;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(id) + "/fd", gone)) {
    descriptors[entry.path().filename().string()] = fs::read_symlink(entry.path(), gone).string();
  }
  return descriptors;
}

class OsHiddenProcess : public testing::Test {
 protected:
  ~OsHiddenProcess() override {
    for (const long id : started_) ::kill(static_cast<pid_t>(id), SIGKILL);
    for (const long id : started_) EXPECT_TRUE(Ends(id));
  }

  fs::path Program(const std::string& name, const fs::path& original = "/bin/sleep") {
    const fs::path path = folder_ / name;
    fs::create_directories(path.parent_path());
    fs::copy_file(original, path);
    return path;
  }

  /// An executable that writes a file with all that `commands` say, when it is complete.
  fs::path Script(const std::string& name, const std::string& commands) {
    const fs::path path = folder_ / name;
    std::ofstream(path) << "#!/bin/sh\n{ " << commands << "\n} > '" << Output() << ".new'\nmv '" << Output()
                        << ".new' '" << Output() << "'\n";
    fs::permissions(path, fs::perms(0755));
    return path;
  }
  std::string Output() const { return (folder_ / "output").string(); }
  std::string WaitOutput() const {
    EXPECT_TRUE(WaitFor([this] { return fs::exists(Output()); }));
    return Content(Output());
  }

  long Start(const std::string& command_line) {
    const StartedProcess process = StartHidden(command_line);
    EXPECT_TRUE(process.started) << command_line << ": " << process.error;
    EXPECT_EQ(process.error, 0);
    if (process.started) started_.push_back(process.process_id);
    return process.process_id;
  }
  long StartSleeper(const fs::path& program) { return Start("\"" + program.string() + "\" 1000"); }

  static bool Lives(long id) { return IsAlive(static_cast<pid_t>(id)); }
  static bool Ends(long id) {
    return WaitFor([id] { return !Lives(id); });
  }

  const tolm::test::TempDirectory directory_;
  const fs::path folder_ = fs::canonical(directory_.path());

 private:
  std::vector<long> started_;
};

// -------------------------------------------------------------------------------------- Starting

TEST_F(OsHiddenProcess, RunsUnderTheIdThatIsTold) {
  const fs::path program = Program("sleeper");
  const long id = StartSleeper(program);
  ASSERT_TRUE(Lives(id));
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(id) + "/exe"), program);
}

TEST_F(OsHiddenProcess, ReceivesItsArguments) {
  const fs::path script = Script("script", "for a in \"$@\"; do echo \"[$a]\"; done");
  Start("\"" + script.string() + "\" \"a b\" \"\" c\\d \"C:\\e\\f.exe\" -process");
  EXPECT_EQ(WaitOutput(), "[a b]\n[]\n[c\\d]\n[C:/e/f.exe]\n[-process]\n");
}

TEST_F(OsHiddenProcess, TheProgramsPathMayHaveBackslashes) {
  const fs::path program = Program("folder/sleeper");
  Start("\"" + Replaced(program.string(), "/", "\\") + "\" 1000");
  Start(Replaced(program.string(), "/", "\\") + " 1000");
}

TEST_F(OsHiddenProcess, InheritsEnvironmentAndCurrentDirectory) {
  const tolm::test::EnvironmentValue variable("TOLM_TEST_VALUE", "some value");
  const fs::path script = Script("script", "echo \"$TOLM_TEST_VALUE\"; pwd -P");
  const fs::path before = fs::current_path();
  fs::current_path(folder_);
  Start(script.string());
  fs::current_path(before);
  EXPECT_EQ(WaitOutput(), "some value\n" + folder_.string() + "\n");
}

TEST_F(OsHiddenProcess, InheritsNoDescriptor) {
  // High and low, as they lie after others were closed.
  const int file = ::open("/dev/zero", O_RDONLY);
  ASSERT_GE(file, 0);
  const int high = ::fcntl(file, F_DUPFD, 500);
  ASSERT_GE(high, 500);
  const long id = StartSleeper(Program("sleeper"));
  ::close(file);
  ::close(high);
  const std::map<std::string, std::string> expected = {
      {"0", "/dev/null"}, {"1", "/dev/null"}, {"2", "/dev/null"}};
  std::map<std::string, std::string> descriptors;
  // While it begins, the program has files of its own open.
  WaitFor([&] {
    descriptors = Descriptors(id);
    return descriptors == expected;
  });
  EXPECT_EQ(descriptors, expected);
}

TEST_F(OsHiddenProcess, StartsForACallerWithoutStandardStreams) {
  const fs::path script = Script("script", "echo done");
  ForkedChild child([&](const auto&) {
    for (int stream = 0; stream < 3; ++stream) ::close(stream);
    return StartHidden(script.string()).started ? 0 : 1;
  });
  EXPECT_EQ(child.Join(), 0);
  EXPECT_EQ(WaitOutput(), "done\n");
}

TEST_F(OsHiddenProcess, HasASessionAndAGroupOfItsOwn) {
  const auto id = static_cast<pid_t>(StartSleeper(Program("sleeper")));
  EXPECT_NE(::getsid(id), ::getsid(0));
  EXPECT_NE(::getpgid(id), ::getpgrp());
  EXPECT_NE(::getsid(id), id) << "a leader could come by a terminal";
}

TEST_F(OsHiddenProcess, LeavesNothingToWaitFor) {
  StartSleeper(Program("sleeper"));
  EXPECT_FALSE(StartHidden((folder_ / "missing").string()).started);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(OsHiddenProcess, SignalsAreAsIfNobodyHadTouchedThem) {
  const fs::path program = Program("sleeper");
  struct sigaction ignore {};
  struct sigaction before {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGUSR1, &ignore, &before), 0);
  sigset_t blocked;
  sigset_t mask_before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &mask_before), 0);
  const long id = StartSleeper(program);
  sigset_t mask_after;
  ::pthread_sigmask(SIG_SETMASK, &mask_before, &mask_after);
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_TRUE(sigismember(&mask_after, SIGUSR2) == 1 && sigismember(&mask_after, SIGTERM) == 0)
      << "the caller's mask is as it was";

  std::istringstream lines(Content("/proc/" + std::to_string(id) + "/status"));
  int seen = 0;
  for (std::string line; std::getline(lines, line);) {
    const std::string field = line.substr(0, line.find(':'));
    if (field == "SigBlk" || field == "SigIgn" || field == "SigCgt") {
      EXPECT_EQ(line.find_first_not_of("0", field.size() + 2), std::string::npos) << line;
      ++seen;
    }
  }
  EXPECT_EQ(seen, 3);
}

TEST_F(OsHiddenProcess, LivesOnWhenTheCallerEnds) {
  const fs::path program = Program("sleeper");
  const std::string id_file = (folder_ / "id").string();
  ForkedChild child([&](const auto&) {
    const StartedProcess process = StartHidden("\"" + program.string() + "\" 1000");
    std::ofstream(id_file) << process.process_id;
    return process.started ? 0 : 1;
  });
  ASSERT_EQ(child.Join(), 0);
  const long id = std::stol(Content(id_file));
  EXPECT_TRUE(Lives(id));
  ::kill(static_cast<pid_t>(id), SIGKILL);
  EXPECT_TRUE(Ends(id));
}

TEST_F(OsHiddenProcess, AProgramWithoutAFolderIsLookedForInThePath) {
  Program("bin/tool");
  const std::string elsewhere = (folder_ / "elsewhere").string();
  fs::create_directories(elsewhere + "/tool");  // of that name, and no program
  {
    const tolm::test::EnvironmentValue path("PATH", elsewhere + "::" + (folder_ / "bin").string());
    Start("tool 1000");
    EXPECT_EQ(StartHidden("another-tool").error, ENOENT);
  }
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    const tolm::test::EnvironmentValue path("PATH", value);
    EXPECT_EQ(StartHidden("tool 1000").error, ENOENT);
  }
}

TEST_F(OsHiddenProcess, WhatCannotBeStartedIsToldWithTheSystemsCode) {
  const fs::path plain = folder_ / "plain";
  std::ofstream(plain) << "text";
  const fs::path nonsense = folder_ / "nonsense";
  std::ofstream(nonsense) << "neither a program nor a script";
  fs::permissions(nonsense, fs::perms(0755));
  const std::map<std::string, int> errors = {{"", EINVAL},
                                             {" \t", EINVAL},
                                             {"\"\"", ENOENT},
                                             {(folder_ / "missing").string(), ENOENT},
                                             {(folder_ / "missing" / "program").string(), ENOENT},
                                             {plain.string(), EACCES},
                                             {folder_.string(), EACCES},
                                             {(plain / "program").string(), ENOTDIR},
                                             {nonsense.string(), ENOEXEC}};
  for (const auto& [command_line, error] : errors) {
    const StartedProcess process = StartHidden(command_line);
    EXPECT_FALSE(process.started) << command_line;
    EXPECT_EQ(process.process_id, 0) << command_line;
    EXPECT_EQ(process.error, error) << command_line;
  }
}

TEST_F(OsHiddenProcess, AShortageIsToldWithTheSystemsCode) {
  const fs::path program = Program("sleeper");
  ForkedChild child([&](const auto&) {
    while (::open("/dev/null", O_RDONLY) >= 0) {
    }
    const StartedProcess process = StartHidden(program.string());
    return !process.started && process.error == EMFILE ? 0 : 1;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsHiddenProcess, ManyThreadsMayStartAtTheSameTime) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5;
  const fs::path program = Program("sleeper");
  std::mutex mutex;
  std::vector<StartedProcess> all;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < kEach; ++j) {
        const StartedProcess process = StartHidden("\"" + program.string() + "\" 1000");
        const std::lock_guard lock(mutex);
        all.push_back(process);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
  std::map<long, int> ids;
  for (const StartedProcess& process : all) {
    EXPECT_TRUE(process.started) << process.error;
    if (!process.started) continue;
    ++ids[process.process_id];
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(process.process_id) + "/exe"), program);
  }
  EXPECT_EQ(ids.size(), all.size());
  for (const auto& [id, count] : ids) {
    ::kill(static_cast<pid_t>(id), SIGKILL);
    EXPECT_TRUE(Ends(id));
  }
}

// -------------------------------------------------------------------------------------- Removing

class OsRemoval : public OsHiddenProcess {
 protected:
  /// The path as a command names it, with backslashes, doubled.
  static std::string Doubled(const fs::path& path) { return Replaced(path.string(), "/", "\\\\"); }
  static std::string Command(const std::string& path) {
    return "wmic process where ExecutablePath=\"" + path + "\" delete";
  }
};

TEST_F(OsRemoval, EndsEveryProcessOfThePathAndNoOther) {
  const fs::path program = Program("app/sleeper");
  const fs::path longer = Program("app/sleeper2");
  const fs::path deeper = Program("deep/app/sleeper");
  const long first = StartSleeper(program);
  const long second = StartSleeper(program);
  const long other = StartSleeper(longer);
  const long another = StartSleeper(deeper);
  RunRemovalCommand(Command(Doubled(program)));
  EXPECT_TRUE(Ends(first));
  EXPECT_TRUE(Ends(second));
  EXPECT_TRUE(Lives(other));
  EXPECT_TRUE(Lives(another));
}

TEST_F(OsRemoval, SlashesAndBackslashesMayBeMixed) {
  const fs::path program = Program("app/sleeper");
  const long id = StartSleeper(program);
  RunRemovalCommand(Command(folder_.string() + "\\\\app\\\\sleeper"));
  EXPECT_TRUE(Ends(id));
}

TEST_F(OsRemoval, EndsWhatRunsAReplacedOrRemovedFile) {
  const fs::path program = Program("sleeper");
  const long removed = StartSleeper(program);
  fs::remove(program);
  const long replaced = StartSleeper(Program("sleeper"));
  fs::rename(Program("newer"), program);
  RunRemovalCommand(Command(Doubled(program)));
  EXPECT_TRUE(Ends(removed));
  EXPECT_TRUE(Ends(replaced));
}

TEST_F(OsRemoval, SparesTheCaller) {
  const fs::path self = Program("self", "/proc/self/exe");
  const std::string command = Command(Doubled(self));
  ForkedChild child([&](const auto&) {
    ::execl(self.c_str(), self.c_str(), "--run-removal", command.c_str(), nullptr);
    return 1;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsRemoval, AnyOtherCommandDoesNothing) {
  const fs::path program = Program("sleeper");
  ForkedChild sleeper([&](const auto&) {
    ::execl(program.c_str(), program.c_str(), "1000", nullptr);
    return 1;
  });
  ASSERT_TRUE(WaitFor([&] {
    std::error_code ignored;
    return fs::read_symlink("/proc/" + std::to_string(sleeper.id()) + "/exe", ignored) == program;
  }));
  const std::string path = program.string();
  const std::string doubled = Doubled(program);
  for (const std::string& command :
       {std::string(), path, "wmic process where ExecutablePath=\"" + doubled + "\"",
        "wmic process where ExecutablePath=" + doubled + " delete",
        "wmic process where ExecutablePath='" + doubled + "' delete",
        "wmic process where ExecutablePath=\"" + doubled + " delete",
        "wmic  process where ExecutablePath=\"" + doubled + "\" delete",
        "wmic process where Name=\"" + doubled + "\" delete", " " + Command(doubled), Command(doubled) + " ",
        Command(doubled) + "d", Command(""), Command(doubled + "\\"), Command(doubled + "\" delete & \""),
        Command(Replaced(path, "/", "\\")), Command("\"" + doubled + "\""), Command(path.substr(1)),
        Command("sleeper"), Command(Replaced(path, "/", "\\\\\\\\"))}) {
    RunRemovalCommand(command);
    EXPECT_TRUE(IsAlive(sleeper.id())) << command;
  }
  ::kill(sleeper.id(), SIGTERM);
  EXPECT_EQ(sleeper.Join(), -SIGTERM) << "nothing else ended it before";
}

TEST_F(OsRemoval, APathThatNobodyRunsIsNoFault) {
  const fs::path program = Program("sleeper");
  RunRemovalCommand(Command(Doubled(program)));
  RunRemovalCommand(Command(Doubled(folder_ / "missing")));
  EXPECT_TRUE(fs::exists(program));
}

}  // namespace
}  // namespace os
