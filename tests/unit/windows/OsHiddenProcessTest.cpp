// How programs are started and removed on this system, to the letter.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "HiddenProcessTest.h"
#include "os/HiddenProcess.h"
#include "support/windows/OwnedHandle.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::HasSubstr;
using tolm::test::OwnedHandle;
using tolm::test::WaitFor;

std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class OsWindowsHiddenProcess : public HiddenProcessTest {};

TEST_F(OsWindowsHiddenProcess, ShowsNeitherWindowNorConsole) {
  const std::string command_line = WithOutput(Program("program")) + " show-start";
  Start(command_line);
  EXPECT_EQ(WaitOutput(), "shows its window as told: yes\nshow command 0\nconsole window: no\ncommand line " +
                              command_line + "\n");
}

TEST_F(OsWindowsHiddenProcess, PathsInArgumentsKeepTheirBackslashes) {
  Start(WithOutput(Program("TolmAgent_Exe64")) +
        " show-surroundings \"C:\\My App\\Host.exe\" Client -process");
  EXPECT_THAT(WaitOutput(), HasSubstr("argument C:\\My App\\Host.exe\nargument Client\nargument -process\n"));
}

TEST_F(OsWindowsHiddenProcess, NoHandleIsInherited) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  const OwnedHandle event(::CreateEventW(&inheritable, TRUE, FALSE, nullptr));
  Start(WithOutput(Program("program")) + " set-inherited " +
        std::to_string(reinterpret_cast<UINT_PTR>(event.get())));
  const std::string output = WaitOutput();
  EXPECT_EQ(::WaitForSingleObject(event.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT)) << output;
}

TEST_F(OsWindowsHiddenProcess, ItsNumberIsNoOtherProcessesAfterItsEnd) {
  const long id = StartSleeper(Program("sleeper"));
  tolm::test::KillProcess(id);
  ASSERT_TRUE(Ends(id));
  const OwnedHandle kept(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(id)));
  EXPECT_TRUE(kept);
}

TEST_F(OsWindowsHiddenProcess, EachByteOfTheCommandLineIsACharacter) {
  const fs::path folder = folder_ / L"\u00C3\u00A4";  // the two bytes of an a with dots
  fs::create_directory(folder);
  fs::copy_file(tolm::test::ThisProgram(), folder / "program.exe");
  Start("\"" + folder_.string() + "\\\xC3\xA4\\program.exe\" --role mark \"" + MarkOf(0).string() + "\"");
  EXPECT_TRUE(WaitFor([this] { return fs::exists(MarkOf(0)); }));
}

TEST_F(OsWindowsHiddenProcess, EachFaultHasItsCode) {
  std::ofstream(folder_ / "nonsense.exe") << "no program at all";
  const std::string folder = "\"" + folder_.string();
  EXPECT_EQ(StartHidden(folder + "\\missing.exe\"").error, ERROR_FILE_NOT_FOUND);
  // Wine tells the same for a missing folder.
  EXPECT_THAT(StartHidden(folder + "\\missing\\program.exe\"").error,
              AnyOf(ERROR_PATH_NOT_FOUND, ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(StartHidden(folder + "\\nonsense.exe\"").error, ERROR_BAD_EXE_FORMAT);
}

class OsWindowsRemoval : public HiddenProcessTest {};

TEST_F(OsWindowsRemoval, RunsTheCommandAsItStandsAndHidden) {
  fs::copy_file(TEST_STAND_IN_WMIC, folder_ / "wmic.exe");
  const std::string command = Removal("C:\\\\App\\\\TolmAgent\\\\TolmGuard\\\\TolmGuard.exe");
  const fs::path before = fs::current_path();
  fs::current_path(folder_);
  RunRemovalCommand(command);
  fs::current_path(before);
  EXPECT_TRUE(WaitFor([this] { return fs::exists(folder_ / "started"); }));
  EXPECT_EQ(Content(folder_ / "started"), command + "\n0\n");
}

TEST_F(OsWindowsRemoval, EndsThemWhereTheCommandIsMissing) {
  const tolm::test::EnvironmentValue nowhere("PATH", std::nullopt);
  const fs::path program = Program("sleeper");
  const long id = StartSleeper(program);
  RunRemovalCommand(Removal(Doubled(program)));
  EXPECT_TRUE(Ends(id));
}

TEST_F(OsWindowsRemoval, CaseMeansNothing) {
  const fs::path program = Program("Sleeper");
  const long id = StartSleeper(program);
  RunRemovalCommand(Removal(Doubled(program.parent_path() / "sLEEPER.EXE")));
  EXPECT_TRUE(Ends(id));
}

TEST_F(OsWindowsRemoval, ThePathMayHaveBlanksAndAnyLetters) {
  const fs::path folder = folder_ / u8"a b \u00E4\u20AC";
  fs::create_directory(folder);
  fs::copy_file(tolm::test::ThisProgram(), folder / "program.exe");
  const std::wstring path = (folder / "program.exe").native();
  std::wstring command_line = L"\"" + path + L"\" --role mark \"" + MarkOf(0).native() + L"\"";
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                               nullptr, nullptr, &start, &process));
  const OwnedHandle thread(process.hThread);
  const OwnedHandle handle(process.hProcess);
  EXPECT_TRUE(WaitFor([this] { return fs::exists(MarkOf(0)); }));
  RunRemovalCommand(Removal(Doubled(folder / "program.exe")));
  EXPECT_TRUE(Ends(static_cast<long>(process.dwProcessId)));
}

}  // namespace
}  // namespace os
