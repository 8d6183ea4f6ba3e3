// What children are only on this system: what they inherit, how they show themselves, and that nobody gets
// out of a job.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>

#include "os/ChildProcess.h"
#include "supervisor/Actor.h"
#include "support/OwnResources.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"
#include "support/windows/OwnedHandle.h"

namespace os {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tolm::test::Actor;
using tolm::test::Family;
using tolm::test::IsGone;
using tolm::test::KillProcess;
using tolm::test::OpenDescriptors;
using tolm::test::OwnedHandle;
using tolm::test::ProcessId;
using tolm::test::ThisProgram;
using tolm::test::WaitFor;
using tolm::test::WhyNot;
namespace fs = std::filesystem;

fs::path WriteFile(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

OwnedHandle InheritableEvent() {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  return OwnedHandle(::CreateEventW(&inheritable, TRUE, FALSE, nullptr));
}

TEST(OsChildProcess, NoHandleIsInherited) {
  const OwnedHandle event = InheritableEvent();
  Actor bystander({"wait"});
  ASSERT_TRUE(bystander.Start()) << bystander.why();
  Actor actor({"set-inherited", std::to_string(reinterpret_cast<UINT_PTR>(event.get()))});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(::WaitForSingleObject(event.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT))
      << actor.printed().Text();
}

TEST(OsChildProcess, ShowsNeitherWindowNorConsole) {
  Actor actor({"show-start"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  const std::string printed = actor.printed().Text();
  EXPECT_THAT(printed, HasSubstr("shows its window as told: yes\n"));
  EXPECT_THAT(printed, HasSubstr("show command 0\n"));
  EXPECT_THAT(printed, HasSubstr("console window: no\n"));
}

TEST(OsChildProcess, VariablesReplaceThoseOfAnotherCase) {
  const tolm::test::EnvironmentValue kept("Test_Kept", std::string("as it was"));
  const tolm::test::EnvironmentValue replaced("Test_Added", std::string("old"));
  Actor actor({"show-surroundings"});
  actor.request().environment = {{"TEST_ADDED", "new"}};
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_THAT(actor.printed().Text(), HasSubstr("TEST_ADDED new\nTEST_KEPT as it was\n"));
}

TEST(OsChildProcess, AProgramMayLieInAFolderOfAnyName) {
  const tolm::test::TempDirectory directory;
  const fs::path folder = directory.path() / u8"100% \u00E4 & b\u20AC c";
  fs::create_directory(folder);
  fs::copy_file(ThisProgram(), folder / "a program.exe");
  Actor actor({"say-and-exit", "5"});
  actor.request().program = (folder / "a program.exe").string();
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_EQ(Describe(actor.WaitEnd().value()), "exit status 5");
}

TEST(OsChildProcess, AMissingProgramIsNamed) {
  const tolm::test::TempDirectory folder;
  const std::string missing = (folder.path() / "missing.exe").string();
  EXPECT_THAT(WhyNot(missing), StartsWith("cannot start " + missing + ": "));
  const std::string outside = (folder.path() / "nowhere").string();
  EXPECT_THAT(WhyNot(outside + "\\deeper\\program.exe"),
              HasSubstr(": the folder " + outside + " is missing"));
  EXPECT_THAT(WhyNot(""), HasSubstr("is not a possible one"));
}

TEST(OsChildProcess, WhatTheSystemSaysIsOneLineWithoutAFullStop) {
  const std::string why = WhyNot("C:\\missing.exe");
  EXPECT_EQ(why.find_first_of("\r\n"), std::string::npos) << why;
  EXPECT_TRUE(std::isalpha(static_cast<unsigned char>(why.back()))) << why;
}

TEST(OsChildProcess, ADirectoryIsNoProgram) {
  const tolm::test::TempDirectory folder;
  EXPECT_THAT(WhyNot(folder.path().string()), HasSubstr(": it is a directory"));
}

TEST(OsChildProcess, AProgramForAnotherMachineIsRecognised) {
  const tolm::test::TempDirectory folder;
  IMAGE_DOS_HEADER dos{};
  dos.e_magic = IMAGE_DOS_SIGNATURE;
  dos.e_lfanew = sizeof dos;
  IMAGE_NT_HEADERS64 headers{};
  headers.Signature = IMAGE_NT_SIGNATURE;
  headers.FileHeader.Machine = IMAGE_FILE_MACHINE_ARM64;
  headers.FileHeader.SizeOfOptionalHeader = sizeof headers.OptionalHeader;
  headers.FileHeader.Characteristics = IMAGE_FILE_EXECUTABLE_IMAGE;
  headers.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR64_MAGIC;
  const std::string content = std::string(reinterpret_cast<const char*>(&dos), sizeof dos) +
                              std::string(reinterpret_cast<const char*>(&headers), sizeof headers);
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "program.exe", content).string()),
              HasSubstr("it is made for another machine (aarch64)"));
}

TEST(OsChildProcess, AFileThatIsNoProgramAtAllIsRecognised) {
  const tolm::test::TempDirectory folder;
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "text.exe", "hello, hello").string()),
              HasSubstr("it is no program"));
  EXPECT_THAT(WhyNot(WriteFile(folder.path() / "short.exe", "MZ").string()), HasSubstr("it is cut off"));
}

TEST(OsChildProcess, NobodyGetsOutOfTheJob) {
  Actor actor({"try-to-break-away"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(actor.printed().Text(), "held back by error " + std::to_string(ERROR_ACCESS_DENIED) + "\n");
}

TEST(OsChildProcess, DestructionDoesNotWaitForWhoeverKeepsTheOutput) {
  Actor actor({"tell-output"});
  ASSERT_TRUE(actor.Start()) << actor.why();
  const long value = actor.printed().WaitForNumberAfter("output");
  ASSERT_GT(value, 0);
  const OwnedHandle process(::OpenProcess(PROCESS_DUP_HANDLE, FALSE, static_cast<DWORD>(actor.id())));
  HANDLE kept = nullptr;
  ASSERT_TRUE(::DuplicateHandle(process.get(), reinterpret_cast<HANDLE>(static_cast<UINT_PTR>(value)),
                                ::GetCurrentProcess(), &kept, 0, FALSE, DUPLICATE_SAME_ACCESS));
  const OwnedHandle keeps_it(kept);
  KillProcess(actor.id());
  ASSERT_TRUE(actor.WaitEnd());
  EXPECT_EQ(actor.ends_of_output(), 0);
  actor.Destroy();
  EXPECT_EQ(actor.ends_of_output(), 1);
}

TEST(OsChildProcess, ManyQuickOnesLeaveNothingBehind) {
  constexpr int kStarts = 30;
  Actor({"exit", "0"}).Start();  // what a first one brings with it
  const long handles = OpenDescriptors();
  for (int i = 0; i < kStarts; ++i) {
    Actor actor({"exit", "0"});
    ASSERT_TRUE(actor.Start()) << actor.why();
    if (i % 2 == 0) {
      ASSERT_EQ(Describe(actor.WaitEnd().value()), "exit status 0");
    }
  }
  // Locks get a handle when they are first waited for; one for each child would be more.
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() < handles + kStarts / 2; }))
      << OpenDescriptors() << " and at first " << handles;
}

TEST(OsChildProcess, FailedStartsLeaveNothingBehind) {
  WhyNot("C:\\no\\such\\program.exe");
  const long handles = OpenDescriptors();
  for (int i = 0; i < 50; ++i) EXPECT_THAT(WhyNot("C:\\no\\such\\program.exe"), StartsWith("cannot start"));
  EXPECT_LE(OpenDescriptors(), handles);
}

TEST(OsSupervisor, WholeTreesDieWithASupervisorThatIsKilled) {
  Actor supervisor({"supervise", "family"});
  ASSERT_TRUE(supervisor.Start()) << supervisor.why();
  const Family family(supervisor.printed());
  ASSERT_TRUE(family.IsComplete()) << supervisor.printed().Text();
  KillProcess(supervisor.id());
  EXPECT_TRUE(family.WaitUntilNoneIsLeft());
}

TEST(OsRunningExecutable, CaseAndSeparatorsMeanNothing) {
  const tolm::test::TempDirectory folder;
  const fs::path program = fs::canonical(folder.path()) / u8"Pr\u00F6gram.exe";
  fs::copy_file(ThisProgram(), program);
  Actor actor({"wait"});
  actor.request().program = program.string();
  ASSERT_TRUE(actor.Start()) << actor.why();
  EXPECT_TRUE(IsExecutableRunning(program.generic_string()));
  EXPECT_TRUE(IsExecutableRunning((program.parent_path() / u8"pR\u00D6GRAM.EXE").string()));
  EXPECT_FALSE(IsExecutableRunning((program.parent_path() / "Program.exe").string()));
}

}  // namespace
}  // namespace os
