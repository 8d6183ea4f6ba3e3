// Children, their output and their end; trees that end as a whole; and what happens to them when the
// supervisor is killed.

#include <elf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "os/ChildProcess.h"
#include "supervisor/ProcessWatch.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tolm::test::IsGone;
using tolm::test::Printed;
using tolm::test::WaitFor;
using tolm::test::WaitUntilGone;
namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{40};

std::string ThisProgram() {
  return fs::read_symlink("/proc/self/exe");
}

/// A child that plays a role, with all that its handlers were told.
class Actor {
 public:
  explicit Actor(std::vector<std::string> role) {
    request_.program = ThisProgram();
    request_.arguments = std::move(role);
    request_.arguments.insert(request_.arguments.begin(), "--role");
  }
  ~Actor() { process_.reset(); }

  ProcessRequest& request() { return request_; }

  /// False when it was not started; why() then tells.
  bool Start() {
    request_.on_output = [this](std::string_view piece) {
      if (ends_of_output_ > 0) ++pieces_behind_the_end_;
      if (piece.empty()) ++ends_of_output_;
      printed_.Add(piece);
    };
    request_.on_end = [this](const ProcessEnd& end) {
      if (++ends_ == 1) end_.set_value(end);
    };
    process_ = ChildProcess::Start(request_, why_);
    return process_ != nullptr;
  }

  ChildProcess& process() { return *process_; }
  const std::string& why() const { return why_; }
  const Printed& printed() const { return printed_; }
  int ends() const { return ends_; }
  int ends_of_output() const { return ends_of_output_; }
  int pieces_behind_the_end() const { return pieces_behind_the_end_; }
  pid_t id() const { return static_cast<pid_t>(process_->id()); }
  void Destroy() { process_.reset(); }

  std::optional<ProcessEnd> WaitEnd() {
    if (end_future_.wait_for(kPatience) != std::future_status::ready) return std::nullopt;
    return end_future_.get();
  }
  bool WaitEndOfOutput() {
    return WaitFor([this] { return ends_of_output_ == 1; }, kPatience);
  }

 private:
  ProcessRequest request_;
  Printed printed_;
  std::string why_;
  std::atomic<int> ends_{0};
  std::atomic<int> ends_of_output_{0};
  std::atomic<int> pieces_behind_the_end_{0};
  std::promise<ProcessEnd> end_;
  std::future<ProcessEnd> end_future_{end_.get_future()};
  std::unique_ptr<ChildProcess> process_;
};

/// Why `program` does not start; "it started" when it does.
std::string WhyNot(const fs::path& program) {
  std::string why = "it started";
  const auto child = ChildProcess::Start({.program = program}, why);
  return why;
}

fs::path WriteFile(const fs::path& path, const std::string& content, bool executable = true) {
  std::ofstream(path, std::ios::binary) << content;
  fs::permissions(path, executable ? fs::perms(0700) : fs::perms(0600));
  return path;
}

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
  const auto child = ChildProcess::Start({.program = ThisProgram(),
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

TEST(OsChildProcess, TheEndTellsTheSignal) {
  Actor actor({"wait"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_FALSE(actor.process().HasEnded());
  EXPECT_FALSE(actor.process().WaitEnd(std::chrono::milliseconds(1)));
  ::kill(actor.id(), SIGKILL);
  const auto end = actor.WaitEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->signal, SIGKILL);
  EXPECT_EQ(Describe(*end), "killed by signal 9");
}

TEST(OsChildProcess, WithoutHandlersOutputGoesNowhere) {
  std::string why;
  const auto child =
      ChildProcess::Start({.program = ThisProgram(), .arguments = {"--role", "print", "20000"}}, why);
  ASSERT_TRUE(child) << why;
  EXPECT_TRUE(child->WaitEnd(kPatience));
}

TEST(OsChildProcess, AHandlerThatThrowsHarmsNobody) {
  std::promise<void> ended;
  std::string why;
  const auto child = ChildProcess::Start({.program = ThisProgram(),
                                          .arguments = {"--role", "print", "3"},
                                          .on_output = [](std::string_view) { throw std::string("no"); },
                                          .on_end =
                                              [&](const ProcessEnd&) {
                                                ended.set_value();
                                                throw 1;
                                              }},
                                         why);
  ASSERT_TRUE(child) << why;
  EXPECT_EQ(ended.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(OsChildProcess, ThereIsNothingOnStdin) {
  Actor actor({"read-input"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(actor.printed().WaitForText("nothing to read\n"));
}

TEST(OsChildProcess, FolderArgumentsAndEnvironmentAreAsAskedFor) {
  const tolm::test::TempDirectory folder;
  const tolm::test::EnvironmentValue kept("TEST_KEPT", std::string("as it was"));
  const tolm::test::EnvironmentValue replaced("TEST_ADDED", std::string("old"));
  Actor actor({"show-surroundings", "a b", "", "\"c\\"});
  actor.request().working_folder = folder.path();
  actor.request().environment = {{"TEST_ADDED", "new = value"}};
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  const std::string printed = actor.printed().Text();
  EXPECT_THAT(printed, HasSubstr("folder " + fs::canonical(folder.path()).string() + "\n"));
  EXPECT_THAT(printed, HasSubstr("argument a b\nargument \nargument \"c\\\n"));
  EXPECT_THAT(printed, HasSubstr("TEST_ADDED new = value\n"));
  EXPECT_THAT(printed, HasSubstr("TEST_KEPT as it was\n"));
}

TEST(OsChildProcess, SignalsAreAsTheSystemHasThemAtFirst) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handler = std::signal(SIGPIPE, SIG_IGN);
  Actor actor({"show-surroundings"});
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

TEST(OsChildProcess, AMissingWorkingFolderIsNamed) {
  std::string why;
  EXPECT_FALSE(ChildProcess::Start({.program = ThisProgram(), .working_folder = "/no/such/folder"}, why));
  EXPECT_THAT(why, HasSubstr("cannot go to the folder /no/such/folder: No such file or directory"));
}

TEST(OsChildProcess, TextsThatWouldBeCutOffAreRefused) {
  std::string why;
  EXPECT_FALSE(ChildProcess::Start({.program = ThisProgram(), .arguments = {std::string("a\0b", 3)}}, why));
  EXPECT_THAT(why, HasSubstr("is not a possible one"));
  why.clear();
  EXPECT_FALSE(ChildProcess::Start({.program = ThisProgram(), .environment = {{"A=B", "c"}}}, why));
  EXPECT_THAT(why, HasSubstr("is not a possible one"));
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
  EXPECT_EQ(end->signal, SIGKILL);
}

class Family {
 public:
  explicit Family(const Printed& printed) {
    for (const char* member : {"ready", "child", "leader", "grandchild", "daemon"}) {
      members_.push_back(printed.WaitForNumberAfter(member));
    }
  }
  bool IsComplete() const {
    for (const pid_t id : members_) {
      if (id <= 0 || IsGone(id)) return false;
    }
    return true;
  }
  bool WaitUntilNoneIsLeft() const {
    for (const pid_t id : members_) {
      if (!WaitUntilGone(id)) return false;
    }
    return true;
  }
  std::size_t CountLeft() const {
    std::size_t left = 0;
    for (const pid_t id : members_) left += IsGone(id) ? 0 : 1;
    return left;
  }

 private:
  std::vector<pid_t> members_;
};

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
  const pid_t daemon = actor.printed().WaitForNumberAfter("daemon");
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
  EXPECT_EQ(actor.WaitEnd()->signal, SIGKILL);
}

TEST(OsChildProcess, DestructionDoesNotWaitForWhoeverKeepsTheOutput) {
  Actor actor({"leave-escaped"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const pid_t escaped = actor.printed().WaitForNumberAfter("escaped");
  ASSERT_GT(escaped, 0);
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(actor.ends_of_output(), 0);
  actor.Destroy();
  EXPECT_EQ(actor.ends_of_output(), 1);
  EXPECT_FALSE(IsGone(escaped)) << "else this case shows nothing";
  ::kill(escaped, SIGKILL);
}

TEST(OsChildProcess, ManyQuickOnesLeaveNothingBehind) {
  constexpr int kStarts = TEST_SANITIZED ? 100 : 1000;
  {
    Actor first({"exit", "0"});  // brings the thread that starts processes with it
    ASSERT_TRUE(first.Start()) << first.why();
  }
  const std::size_t descriptors = tolm::test::CountOpenDescriptors();
  for (int i = 0; i < kStarts; ++i) {
    Actor actor({});
    actor.request() = {.program = "/bin/true"};
    ASSERT_TRUE(actor.Start()) << actor.why();
    if (i % 2 == 0) {
      ASSERT_EQ(Describe(actor.WaitEnd().value()), "exit status 0");
    }
  }
  EXPECT_EQ(tolm::test::CountOpenDescriptors(), descriptors);
  EXPECT_EQ(tolm::test::CountZombiesOf(::getpid()), 0u);
}

TEST(OsChildProcess, FailedStartsLeaveNothingBehind) {
  WhyNot("/no/such/program");
  const std::size_t descriptors = tolm::test::CountOpenDescriptors();
  for (int i = 0; i < 50; ++i) EXPECT_THAT(WhyNot("/no/such/program"), StartsWith("cannot start"));
  EXPECT_EQ(tolm::test::CountOpenDescriptors(), descriptors);
  EXPECT_EQ(tolm::test::CountZombiesOf(::getpid()), 0u);
}

TEST(OsChildProcess, ManyThreadsMayStartAtTheSameTime) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&good, i] {
      for (int round = 0; round < 5; ++round) {
        Actor actor({});
        const std::string status = std::to_string(10 * i + round);
        actor.request() = {.program = "/bin/sh", .arguments = {"-c", "echo " + status + "; exit " + status}};
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
  const pid_t child = supervisor.printed().WaitForNumberAfter("ready");
  ASSERT_GT(child, 0);
  ASSERT_FALSE(IsGone(child));
  ::kill(supervisor.id(), SIGKILL);
  EXPECT_TRUE(WaitUntilGone(child));
}

TEST(OsSupervisor, WhatAKilledSupervisorLeftIsInTheTreeOfTheOneAbove) {
  Actor supervisor({"supervise", "family"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const Family family(supervisor.printed());
  ASSERT_TRUE(family.IsComplete()) << supervisor.printed().Text();
  ::kill(supervisor.id(), SIGKILL);
  ASSERT_TRUE(supervisor.WaitEnd());
  supervisor.process().KillTree();
  EXPECT_EQ(family.CountLeft(), 0u);
}

TEST(OsSupervisor, OneThatAdoptsKillsWhatAnEndedChildLeft) {
  Actor supervisor({"supervise-and-adopt", "leave-daemon"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const pid_t daemon = supervisor.printed().WaitForNumberAfter("daemon");
  ASSERT_GT(daemon, 0);
  EXPECT_TRUE(WaitUntilGone(daemon));
  ASSERT_TRUE(supervisor.printed().WaitForText("ended: exit status 0\n"));
  EXPECT_FALSE(supervisor.process().HasEnded());
  EXPECT_TRUE(WaitFor([&] { return tolm::test::CountZombiesOf(supervisor.id()) == 0; }, kPatience));
}

TEST(OsSupervisor, OneThatAdoptsCollectsOrphansThatEnd) {
  Actor supervisor({"supervise-and-adopt", "family"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const pid_t daemon = supervisor.printed().WaitForNumberAfter("daemon");
  ASSERT_GT(supervisor.printed().WaitForNumberAfter("ready"), 0);
  ::kill(daemon, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return ::kill(daemon, 0) != 0; }, kPatience)) << "not collected";
  EXPECT_FALSE(supervisor.process().HasEnded());
}

TEST(OsSupervisor, StraysAreKilledAndLivingTreesAreSpared) {
  Actor supervisor({"kill-strays", "leave-escaped"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const Family family(supervisor.printed());
  ASSERT_GT(supervisor.printed().WaitForNumberAfter("supervisor"), 0);
  const pid_t escaped = supervisor.printed().WaitForNumberAfter("escaped");
  ASSERT_GT(escaped, 0);
  ASSERT_FALSE(IsGone(escaped)) << "else this case shows nothing";
  ASSERT_TRUE(family.IsComplete());
  ::kill(supervisor.id(), SIGUSR1);
  ASSERT_TRUE(supervisor.printed().WaitForText("strays are killed\n"));
  EXPECT_TRUE(IsGone(escaped));
  EXPECT_TRUE(family.IsComplete());
  supervisor.Destroy();
  EXPECT_TRUE(family.WaitUntilNoneIsLeft());
}

TEST(OsSupervisor, AProcessMayEndWithTheOneThatStartedIt) {
  Actor parent({"child-ends-with-parent"});
  ASSERT_TRUE(parent.Start()) << parent.why();
  const pid_t child = parent.printed().WaitForNumberAfter("ready");
  ASSERT_GT(child, 0);
  ASSERT_NE(child, parent.id());
  ::kill(parent.id(), SIGKILL);
  EXPECT_TRUE(WaitUntilGone(child));
}

TEST(OsRunningExecutable, IsFoundByItsPathAlsoWhenTheFileIsReplaced) {
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

class OsProcessLock : public testing::Test {
 protected:
  std::unique_ptr<ProcessLock> Take(const std::string& name) { return ProcessLock::TryTake(name, why_); }

  const tolm::test::RuntimeDirectory runtime_;
  std::string why_;
};

TEST_F(OsProcessLock, IsHeldByOneAtATime) {
  auto lock = Take("name");
  ASSERT_TRUE(lock) << why_;
  EXPECT_FALSE(Take("name"));
  EXPECT_EQ(why_, "");
  EXPECT_TRUE(Take("other name")) << why_;
  lock.reset();
  EXPECT_TRUE(Take("name")) << why_;
  EXPECT_TRUE(fs::is_empty(runtime_.endpoints())) << "nothing is left behind";
}

TEST_F(OsProcessLock, IsFreedWhenItsHolderIsKilled) {
  Actor holder({"hold-lock", "name"});
  ASSERT_TRUE(holder.Start()) << holder.why();
  ASSERT_GT(holder.printed().WaitForNumberAfter("ready"), 0) << holder.printed().Text();
  EXPECT_FALSE(Take("name"));
  EXPECT_EQ(why_, "");
  ::kill(holder.id(), SIGKILL);
  ASSERT_TRUE(holder.process().WaitEnd(kPatience));
  EXPECT_TRUE(Take("name")) << why_;
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

TEST_F(OsProcessLock, SaysWhatTheSystemSays) {
  std::ofstream(runtime_.endpoints()) << "not a folder";
  EXPECT_FALSE(Take("name"));
  EXPECT_THAT(why_, HasSubstr("is not a directory"));
}

}  // namespace
}  // namespace os
