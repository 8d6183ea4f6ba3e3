#include "Spawn.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "EnvironmentBlock.h"
#include "Job.h"
#include "StartAttributes.h"
#include "WideText.h"
#include "os/ExecutableFault.h"
#include "os/HiddenProcess.h"

namespace os {
namespace {

/// Texts that would be cut off, or taken for something else, are none.
bool IsPassable(const ProcessRequest& request) {
  const auto whole = [](const std::string& text) { return text.find('\0') == std::string::npos; };
  const auto variable = [&](const auto& pair) {
    return !pair.first.empty() && pair.first.find('=') == std::string::npos && whole(pair.first) &&
           whole(pair.second);
  };
  return !request.program.empty() && whole(request.program) && whole(request.working_folder) &&
         std::all_of(request.arguments.begin(), request.arguments.end(), whole) &&
         std::all_of(request.environment.begin(), request.environment.end(), variable);
}

Handle OpenNothing() {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  return Handle(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              &inheritable, OPEN_EXISTING, 0, nullptr));
}

STARTUPINFOEXW StartInformation(const StartAttributes& attributes, HANDLE input, HANDLE output) {
  STARTUPINFOEXW start{};
  start.StartupInfo.cb = sizeof start;
  start.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  start.StartupInfo.wShowWindow = SW_HIDE;
  start.StartupInfo.hStdInput = input;
  start.StartupInfo.hStdOutput = output;
  start.StartupInfo.hStdError = output;
  start.lpAttributeList = attributes.list();
  return start;
}

bool CreateChild(const ProcessRequest& request, STARTUPINFOEXW& start, PROCESS_INFORMATION& made) {
  std::vector<std::string> words{request.program};
  words.insert(words.end(), request.arguments.begin(), request.arguments.end());
  std::wstring command_line = FromUtf8(JoinCommandLine(words));
  std::wstring environment = EnvironmentBlock(request.environment);
  const std::wstring folder = FromUtf8(request.working_folder);
  constexpr DWORD kFlags =
      CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP | EXTENDED_STARTUPINFO_PRESENT;
  return ::CreateProcessW(FromUtf8(request.program).c_str(), command_line.data(), nullptr, nullptr, TRUE,
                          kFlags, environment.data(), folder.empty() ? nullptr : folder.c_str(),
                          &start.StartupInfo, &made) != FALSE;
}

/// What was wrong beside what the system's text for `error` says; empty when that is all.
std::string Fault(const ProcessRequest& request, DWORD error) {
  if (!request.working_folder.empty()) {
    const DWORD attributes = ::GetFileAttributesW(FromUtf8(request.working_folder).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      return "cannot go to the folder " + request.working_folder;
    }
  }
  return ExecutableFault(request.program, static_cast<int>(error));
}

}  // namespace

bool Spawn(const ProcessRequest& request, SpawnedProcess& spawned, std::string& why) {
  const std::string doing = "cannot start " + request.program;
  if (!IsPassable(request)) {
    why = doing + ": its name, an argument or a variable is not a possible one";
    return false;
  }
  const auto fail = [&](DWORD error, const std::string& fault = {}) {
    why = SystemMessage(doing, error) + (fault.empty() ? "" : ": " + fault);
    return false;
  };
  const Handle nothing = OpenNothing();
  if (!nothing) return fail(::GetLastError());
  Handle output;
  if (request.on_output) {
    output = spawned.output.Open();
    if (!output) return fail(::GetLastError());
  }
  spawned.job = MakeJob();
  if (!spawned.job) return fail(::GetLastError(), "there is no job for its processes");

  std::vector<HANDLE> inherited{nothing.get()};
  if (output) inherited.push_back(output.get());
  const StartAttributes attributes(inherited, spawned.job.get());
  if (!attributes.is_good()) return fail(::GetLastError(), "it cannot be tied to this process");
  STARTUPINFOEXW start = StartInformation(attributes, inherited.front(), inherited.back());
  PROCESS_INFORMATION made{};
  if (!CreateChild(request, start, made)) {
    const DWORD error = ::GetLastError();
    return fail(error, Fault(request, error));
  }
  const Handle main_thread(made.hThread);
  spawned.process = Handle(made.hProcess);
  spawned.id = made.dwProcessId;
  return true;
}

}  // namespace os
