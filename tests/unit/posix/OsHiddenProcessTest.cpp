// What starting and removing programs is only where there are scripts, sessions, signals and descriptors.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "ForkedChild.h"
#include "HiddenProcessTest.h"
#include "os/HiddenProcess.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::ForkedChild;
using tolm::test::WaitFor;

std::string Content(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
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

class OsPosixHiddenProcess : public HiddenProcessTest {
 protected:
  fs::path Sleeper(const std::string& name) {
    const fs::path path = folder_ / name;
    fs::create_directories(path.parent_path());
    fs::copy_file("/bin/sleep", path);
    return path;
  }
  long StartSleeper(const fs::path& program) { return Start("\"" + program.string() + "\" 1000"); }

  /// An executable that writes a file with all that `commands` say, when it is complete.
  fs::path Script(const std::string& name, const std::string& commands) {
    const fs::path path = folder_ / name;
    const std::string output = output_.string();
    std::ofstream(path) << "#!/bin/sh\n{ " << commands << "\n} > '" << output << ".new'\nmv '" << output
                        << ".new' '" << output << "'\n";
    fs::permissions(path, fs::perms(0755));
    return path;
  }
};

TEST_F(OsPosixHiddenProcess, QuotedArgumentsHaveSlashes) {
  const fs::path script = Script("script", "for a in \"$@\"; do echo \"[$a]\"; done");
  Start("\"" + script.string() + "\" \"a b\" \"\" c\\d \"C:\\e\\f.exe\" -process");
  EXPECT_EQ(WaitOutput(), "[a b]\n[]\n[c\\d]\n[C:/e/f.exe]\n[-process]\n");
}

TEST_F(OsPosixHiddenProcess, TheProgramsPathMayHaveBackslashes) {
  const fs::path program = Sleeper("folder/sleeper");
  Start("\"" + Replaced(program.string(), "/", "\\") + "\" 1000");
  Start(Replaced(program.string(), "/", "\\") + " 1000");
}

TEST_F(OsPosixHiddenProcess, InheritsNoDescriptor) {
  // High and low, as they lie after others were closed.
  const int file = ::open("/dev/zero", O_RDONLY);
  ASSERT_GE(file, 0);
  const int high = ::fcntl(file, F_DUPFD, 500);
  ASSERT_GE(high, 500);
  const long id = StartSleeper(Sleeper("sleeper"));
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

TEST_F(OsPosixHiddenProcess, StartsForACallerWithoutStandardStreams) {
  const fs::path script = Script("script", "echo done");
  ForkedChild child([&](const auto&) {
    for (int stream = 0; stream < 3; ++stream) ::close(stream);
    return StartHidden(script.string()).started ? 0 : 1;
  });
  EXPECT_EQ(child.Join(), 0);
  EXPECT_EQ(WaitOutput(), "done\n");
}

TEST_F(OsPosixHiddenProcess, HasASessionAndAGroupOfItsOwn) {
  const auto id = static_cast<pid_t>(StartSleeper(Sleeper("sleeper")));
  EXPECT_NE(::getsid(id), ::getsid(0));
  EXPECT_NE(::getpgid(id), ::getpgrp());
  EXPECT_NE(::getsid(id), id) << "a leader could come by a terminal";
}

TEST_F(OsPosixHiddenProcess, LeavesNothingToWaitFor) {
  StartSleeper(Sleeper("sleeper"));
  EXPECT_FALSE(StartHidden((folder_ / "missing").string()).started);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(OsPosixHiddenProcess, SignalsAreAsIfNobodyHadTouchedThem) {
  const fs::path program = Sleeper("sleeper");
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

TEST_F(OsPosixHiddenProcess, AProgramWithoutAFolderIsLookedForInThePath) {
  Sleeper("bin/tool");
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

TEST_F(OsPosixHiddenProcess, EachFaultHasItsCode) {
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

TEST_F(OsPosixHiddenProcess, AShortageIsToldWithTheSystemsCode) {
  const fs::path program = Sleeper("sleeper");
  ForkedChild child([&](const auto&) {
    while (::open("/dev/null", O_RDONLY) >= 0) {
    }
    const StartedProcess process = StartHidden(program.string());
    return !process.started && process.error == EMFILE ? 0 : 1;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsPosixHiddenProcess, RemovalEndsWhatRunsAReplacedOrRemovedFile) {
  const fs::path program = Sleeper("sleeper");
  const long removed = StartSleeper(program);
  fs::remove(program);
  const long replaced = StartSleeper(Sleeper("sleeper"));
  fs::rename(Sleeper("newer"), program);
  RunRemovalCommand(Removal(Doubled(program)));
  EXPECT_TRUE(Ends(removed));
  EXPECT_TRUE(Ends(replaced));
}

TEST_F(OsPosixHiddenProcess, RemovalReadsBackslashesAsSlashesOneByOne) {
  const fs::path program = Sleeper("sleeper");
  const long id = StartSleeper(program);
  RunRemovalCommand(Removal(Replaced(program.string(), "/", "\\\\\\\\")));
  EXPECT_TRUE(Lives(id));
}

}  // namespace
}  // namespace os
