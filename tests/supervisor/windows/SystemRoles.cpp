#include "supervisor/SystemRoles.h"

#include <windows.h>

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "os/HiddenProcess.h"
#include "support/System.h"

namespace tolm::test {
namespace {

// A path takes UTF-8 only from this type; a plain text it takes byte by byte.
std::wstring Wide(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end())).native();
}

std::string Narrow(const std::wstring& text) {
  return std::filesystem::path(text).string();
}

/// Another role of this program, with this one's output; its error when it does not start.
DWORD StartRole(const Arguments& role, DWORD flags = 0) {
  Arguments words{ThisProgram().string(), "--role"};
  words.insert(words.end(), role.begin(), role.end());
  std::wstring command_line = Wide(os::JoinCommandLine(words));
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  start.hStdOutput = ::GetStdHandle(STD_OUTPUT_HANDLE);
  start.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION made{};
  if (!::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, TRUE, flags, nullptr, nullptr, &start,
                        &made)) {
    return ::GetLastError();
  }
  ::CloseHandle(made.hThread);
  ::CloseHandle(made.hProcess);
  return NO_ERROR;
}

HANDLE FromText(const std::string& value) {
  return reinterpret_cast<HANDLE>(static_cast<UINT_PTR>(std::stoull(value)));
}

std::string ToText(HANDLE handle) {
  return std::to_string(reinterpret_cast<UINT_PTR>(handle));
}

int BeDaemon(const Arguments& arguments) {
  SayWithId("daemon");
  ::SetEvent(FromText(arguments.at(0)));
  WaitForever();
}

// Ends when the other one has said who it is.
int LeaveDaemon(const Arguments&) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  const HANDLE ready = ::CreateEventW(&inheritable, TRUE, FALSE, nullptr);
  if (StartRole({"be-daemon", ToText(ready)}, DETACHED_PROCESS) != NO_ERROR) return 1;
  return ::WaitForSingleObject(ready, INFINITE) == WAIT_OBJECT_0 ? 0 : 1;
}

int LeadGrandchild(const Arguments&) {
  if (StartRole({"wait", "grandchild"}) != NO_ERROR) return 1;
  SayWithId("leader");
  WaitForever();
}

int HaveFamily(const Arguments&) {
  if (StartRole({"wait", "child"}) != NO_ERROR ||
      StartRole({"lead-grandchild"}, CREATE_NEW_PROCESS_GROUP | DETACHED_PROCESS) != NO_ERROR ||
      StartRole({"leave-daemon"}) != NO_ERROR) {
    return 1;
  }
  SayWithId("ready");
  WaitForever();
}

// Each generation lives for a moment only: whoever looks for it finds the one before.
int BreedOn(const Arguments& arguments) {
  const int generations = std::stoi(arguments.at(0));
  if (generations == 0) {
    SayWithId("old age");
    return 0;
  }
  return StartRole({"breed-on", std::to_string(generations - 1)}) == NO_ERROR ? 0 : 1;
}

int Breed(const Arguments&) {
  SayWithId("ready");
  if (StartRole({"breed-on", "100000"}) != NO_ERROR) return 1;
  WaitForever();
}

int TryToBreakAway(const Arguments&) {
  const DWORD error = StartRole({"wait", "escaped"}, CREATE_BREAKAWAY_FROM_JOB);
  Say(error == NO_ERROR ? "got away" : "held back by error " + std::to_string(error));
  return 0;
}

/// Sets the event whose handle has this value in the parent, if there is such a thing here.
int SetInherited(const Arguments& arguments) {
  Say(::SetEvent(FromText(arguments.at(0))) ? "event set" : "no such event");
  return 0;
}

int ShowStart(const Arguments&) {
  STARTUPINFOW start{};
  ::GetStartupInfoW(&start);
  Say(std::string("shows its window as told: ") +
      ((start.dwFlags & STARTF_USESHOWWINDOW) != 0 ? "yes" : "no"));
  Say("show command " + std::to_string(start.wShowWindow));
  Say(std::string("console window: ") + (::GetConsoleWindow() != nullptr ? "yes" : "no"));
  Say("command line " + Narrow(::GetCommandLineW()));
  return 0;
}

/// Tells where its output goes, for somebody who keeps it open.
int TellOutput(const Arguments&) {
  Say("output " + ToText(::GetStdHandle(STD_OUTPUT_HANDLE)));
  SayWithId("ready");
  WaitForever();
}

}  // namespace

Arguments ProgramArguments(int, char**) {
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
  // The narrow ones are in the machine's code page.
  int count = 0;
  wchar_t** const words = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  Arguments arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(Narrow(words[i]));
  ::LocalFree(words);
  return arguments;
}

const std::map<std::string, Role>& SystemRoles() {
  static const std::map<std::string, Role> kRoles{
      {"family", HaveFamily},
      {"lead-grandchild", LeadGrandchild},
      {"leave-daemon", LeaveDaemon},
      {"be-daemon", BeDaemon},
      {"breed", Breed},
      {"breed-on", BreedOn},
      {"try-to-break-away", TryToBreakAway},
      {"set-inherited", SetInherited},
      {"show-start", ShowStart},
      {"tell-output", TellOutput},
  };
  return kRoles;
}

std::string Variable(const std::string& name) {
  const wchar_t* const value = ::_wgetenv(Wide(name).c_str());
  return value == nullptr ? "(none)" : Narrow(value);
}

std::string KilledText() {
  return "exit status 1";
}

}  // namespace tolm::test
