// What children and supervisors are only where there are signals, descriptors, scripts and orphans.

#include <elf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "os/ChildProcess.h"
#include "supervisor/Actor.h"
#include "support/OwnResources.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tolm::test::Actor;
using tolm::test::Family;
using tolm::test::IsGone;
using tolm::test::KillProcess;
using tolm::test::OpenDescriptors;
using tolm::test::ProcessId;
using tolm::test::ThisProgram;
using tolm::test::WaitFor;
using tolm::test::WaitUntilGone;
using tolm::test::WhyNot;
namespace fs = std::filesystem;

fs::path WriteFile(const fs::path& path, const std::string& content, bool executable = true) {
  std::ofstream(path, std::ios::binary) << content;
  fs::permissions(path, executable ? fs::perms(0700) : fs::perms(0600));
  return path;
}

/// Children of `parent` that have ended and wait to be collected.
std::size_t CountZombiesOf(ProcessId parent) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(')');
    if (name_end == std::string::npos || name_end + 4 >= text.size()) continue;
    if (text[name_end + 2] == 'Z' && std::atol(text.c_str() + name_end + 4) == parent) ++count;
  }
  return count;
}

TEST(OsChildProcess, TheEndTellsTheSignal) {
  Actor actor({"wait"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_FALSE(actor.process().HasEnded());
  EXPECT_FALSE(actor.process().WaitEnd(std::chrono::milliseconds(1)));
  KillProcess(actor.id());
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->signal, SIGKILL);
  EXPECT_EQ(Describe(*end), "killed by signal 9");
}

TEST(OsChildProcess, SignalsAreAsTheSystemHasThemAtFirst) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handler = std::signal(SIGPIPE, SIG_IGN);
  Actor actor({"show-signals"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_THAT(actor.printed().Text(), HasSubstr("SigBlk:\t0000000000000000\n"));
  EXPECT_THAT(actor.printed().Text(), HasSubstr("SigIgn:\t0000000000000000\n"));
  EXPECT_THAT(actor.printed().Text(), HasSubstr("leads its group\n"));
  std::signal(SIGPIPE, handler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(OsChildProcess, NoDescriptorIsInherited) {
  const tolm::test::RuntimeDirectory runtime;
  std::string why;
  const auto lock = ProcessLock::TryTake("kept from children", why);
  ASSERT_TRUE(lock) << why;
  const int open = ::open("/dev/null", O_RDONLY);  // without O_CLOEXEC
  ASSERT_GE(open, 0);
  const int high = ::fcntl(open, F_DUPFD, 500);
  Actor bystander({"wait"});
  ASSERT_TRUE(bystander.Start()) << bystander.why();
  Actor actor({"list-descriptors"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(actor.printed().Text(), "open: 0 1 2\n");
  ::close(open);
  ::close(high);
}

TEST(OsChildProcess, AMissingProgramIsNamed) {
  const tolm::test::TempDirectory folder;
  const std::string missing = folder.path() / "missing";
  EXPECT_EQ(WhyNot(missing), "cannot start " + missing + ": No such file or directory");
  const std::string deeper = missing + "/deeper/program";
  EXPECT_EQ(WhyNot(deeper),
            "cannot start " + deeper + ": No such file or directory: the folder " + missing + " is missing");
  EXPECT_THAT(WhyNot(""), HasSubstr("is not a possible one"));
}

TEST(OsChildProcess, ADirectoryIsNoProgram) {
  const tolm::test::TempDirectory folder;
  EXPECT_EQ(WhyNot(folder.path()),
            "cannot start " + folder.path().string() + ": Permission denied: it is a directory");
}

TEST(OsChildProcess, AFileThatIsNotExecutableIsNoProgram) {
  const tolm::test::TempDirectory folder;
  const fs::path file = WriteFile(folder.path() / "file", "#!/bin/sh\n", false);
  EXPECT_EQ(WhyNot(file), "cannot start " + file.string() + ": Permission denied: it is not executable");
}

TEST(OsChildProcess, AProgramForAnotherMachineIsRecognised) {
  const tolm::test::TempDirectory folder;
  Elf64_Ehdr header{};
  std::copy_n(ELFMAG, SELFMAG, header.e_ident);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_EXEC;
  header.e_machine = EM_AARCH64;
  header.e_version = EV_CURRENT;
  header.e_ehsize = sizeof header;
  const auto write = [&] {
    return WriteFile(folder.path() / "program",
                     std::string(reinterpret_cast<const char*>(&header), sizeof header));
  };
  EXPECT_THAT(WhyNot(write()), HasSubstr("Exec format error: it is made for another machine (aarch64)"));

  header.e_machine = EM_SPARCV9;
  EXPECT_THAT(WhyNot(write()), HasSubstr("it is made for another machine (number 43)"));

  header.e_ident[EI_DATA] = ELFDATA2MSB;
  header.e_machine = EM_S390 << 8;
  EXPECT_THAT(WhyNot(write()), HasSubstr("it is made for another machine (s390)"));
}

TEST(OsChildProcess, AFileThatIsNoProgramAtAllIsRecognised) {
  const tolm::test::TempDirectory folder;
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "text", "echo hello\n")),
              HasSubstr("it is neither a program nor a script"));
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "nothing", "")), HasSubstr("it is empty"));
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "windows", "MZ and so on")), HasSubstr("(Windows)"));
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "short", ELFMAG "\x02\x01\x01")), HasSubstr("it is cut off"));
}

TEST(OsChildProcess, AMissingInterpreterIsNamed) {
  const tolm::test::TempDirectory folder;
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "script", "#! /no/such/shell -x\n")),
              HasSubstr("No such file or directory: its interpreter /no/such/shell is missing"));
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "other", "#!/bin/sh\r\necho\r\n")),
              HasSubstr("its interpreter /bin/sh is missing (the first line ends with a carriage return)"));
}

TEST(OsChildProcess, AScriptIsAProgramAndARelativePathIsTheCallers) {
  const tolm::test::TempDirectory folder;
  fs::create_directory(folder.path() / "elsewhere");
  WriteFile(folder.path() / "script", "#!/bin/sh\npwd\n");
  const std::string relative = fs::relative(folder.path() / "script");
  Actor actor({});
  actor.request() = {.program = relative, .working_folder = folder.path() / "elsewhere"};
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(actor.printed().WaitForText("/elsewhere\n"));
}

TEST(OsChildProcess, DestructionDoesNotWaitForWhoeverKeepsTheOutput) {
  Actor actor({"leave-escaped"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const ProcessId escaped = actor.printed().WaitForNumberAfter("escaped");
  ASSERT_GT(escaped, 0);
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(actor.ends_of_output(), 0);
  actor.Destroy();
  EXPECT_EQ(actor.ends_of_output(), 1);
  EXPECT_FALSE(IsGone(escaped)) << "else this case shows nothing";
  KillProcess(escaped);
}

TEST(OsChildProcess, ManyQuickOnesLeaveNothingBehind) {
  constexpr int kStarts = TEST_SANITIZED ? 100 : 1000;
  {
    Actor first({"exit", "0"});  // brings the thread that starts processes with it
    ASSERT_TRUE(first.Start()) << first.why();
  }
  const long descriptors = OpenDescriptors();
  for (int i = 0; i < kStarts; ++i) {
    Actor actor({});
    actor.request() = {.program = "/bin/true"};
    ASSERT_TRUE(actor.Start()) << actor.why();
    if (i % 2 == 0) {
      ASSERT_EQ(Describe(actor.WaitEnd().value()), "exit status 0");
    }
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(CountZombiesOf(::getpid()), 0u);
}

TEST(OsChildProcess, FailedStartsLeaveNothingBehind) {
  WhyNot("/no/such/program");
  const long descriptors = OpenDescriptors();
  for (int i = 0; i < 50; ++i) EXPECT_THAT(WhyNot("/no/such/program"), StartsWith("cannot start"));
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(CountZombiesOf(::getpid()), 0u);
}

TEST(OsSupervisor, OneThatAdoptsCollectsOrphansThatEnd) {
  Actor supervisor({"supervise-and-adopt", "family"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const ProcessId daemon = supervisor.printed().WaitForNumberAfter("daemon");
  ASSERT_GT(supervisor.printed().WaitForNumberAfter("ready"), 0);
  KillProcess(daemon);
  EXPECT_TRUE(WaitFor([&] { return ::kill(static_cast<pid_t>(daemon), 0) != 0; }, Actor::kPatience))
      << "not collected";
  EXPECT_FALSE(supervisor.process().HasEnded());
}

TEST(OsSupervisor, OneThatAdoptsLeavesNoZombieOfWhatItKills) {
  Actor supervisor({"supervise-and-adopt", "leave-daemon"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  ASSERT_TRUE(supervisor.printed().WaitForText("ended: exit status 0\n"));
  EXPECT_TRUE(WaitFor([&] { return CountZombiesOf(supervisor.id()) == 0; }, Actor::kPatience));
}

TEST(OsSupervisor, StraysAreKilledAndLivingTreesAreSpared) {
  Actor supervisor({"kill-strays", "leave-escaped"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const Family family(supervisor.printed());
  ASSERT_GT(supervisor.printed().WaitForNumberAfter("supervisor"), 0);
  const ProcessId escaped = supervisor.printed().WaitForNumberAfter("escaped");
  ASSERT_GT(escaped, 0);
  ASSERT_FALSE(IsGone(escaped)) << "else this case shows nothing";
  ASSERT_TRUE(family.IsComplete());
  ::kill(static_cast<pid_t>(supervisor.id()), SIGUSR1);
  ASSERT_TRUE(supervisor.printed().WaitForText("strays are killed\n"));
  EXPECT_TRUE(IsGone(escaped));
  EXPECT_TRUE(family.IsComplete());
  supervisor.Destroy();
  EXPECT_TRUE(family.WaitUntilNoneIsLeft());
}

TEST(OsSupervisor, AProcessMayEndWithTheOneThatStartedIt) {
  Actor parent({"child-ends-with-parent"});
  ASSERT_TRUE(parent.Start()) << parent.why();
  const ProcessId child = parent.printed().WaitForNumberAfter("ready");
  ASSERT_GT(child, 0);
  ASSERT_NE(child, parent.id());
  KillProcess(parent.id());
  EXPECT_TRUE(WaitUntilGone(child));
}

TEST(OsRunningExecutable, IsFoundAlsoWhenTheFileIsReplaced) {
  const tolm::test::TempDirectory folder;
  const fs::path program = fs::canonical(folder.path()) / "program";
  fs::copy_file(ThisProgram(), program);
  EXPECT_FALSE(IsExecutableRunning(program));
  Actor actor({"wait"});
  actor.request().program = program;
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(IsExecutableRunning(program));
  fs::remove(program);
  fs::copy_file(ThisProgram(), program);
  EXPECT_TRUE(IsExecutableRunning(program)) << "the file was replaced";
  actor.process().KillTree();
  EXPECT_FALSE(IsExecutableRunning(program));
  EXPECT_FALSE(IsExecutableRunning(""));
}

TEST(OsPosixProcessLock, SaysWhatTheSystemSays) {
  const tolm::test::RuntimeDirectory runtime;
  std::ofstream(runtime.endpoints()) << "not a folder";
  std::string why;
  EXPECT_FALSE(ProcessLock::TryTake("name", why));
  EXPECT_THAT(why, HasSubstr("is not a directory"));
}

}  // namespace
}  // namespace os
