#include "os/HiddenProcess.h"

#include "Handle.h"
#include "ProcessUser.h"

#include <tlhelp32.h>

#include <optional>

#include "../common/CommandLine.h"

namespace os {
namespace {

constexpr UINT kLeastSuccess = 32;  // what WinExec gives that succeeds is greater than 31

bool IsSamePath(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                TRUE) == CSTR_EQUAL;
}

std::wstring ExecutableOf(const Handle& process) {
  std::wstring path(32768, L'\0');
  auto length = static_cast<DWORD>(path.size());
  if (!::QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) return {};
  path.resize(length);
  return path;
}

/// Ends process `id` if it runs `path` and is this user's. The open handle keeps the number from being
/// used again.
void Remove(DWORD id, const std::wstring& path, const std::vector<char>& user) {
  constexpr DWORD kRights = PROCESS_TERMINATE | PROCESS_QUERY_LIMITED_INFORMATION;
  const Handle process(::OpenProcess(kRights, FALSE, id));
  if (process && IsSamePath(ExecutableOf(process), path) && UserOf(process) == user) {
    ::TerminateProcess(process.get(), 1);
  }
}

/// What the command does, where the system no longer has it.
void RemoveProcesses(const std::wstring& path) {
  const Handle processes(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  const std::vector<char> user = OwnUser();
  if (!processes || user.empty()) return;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(processes.get(), &entry); more;
       more = ::Process32NextW(processes.get(), &entry)) {
    if (entry.th32ProcessID != ::GetCurrentProcessId()) Remove(entry.th32ProcessID, path, user);
  }
}

}  // namespace

StartedProcess StartHidden(const std::string& command_line) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_HIDE;
  PROCESS_INFORMATION process{};
  std::wstring wide = Widen(command_line);  // written to by the call
  if (!::CreateProcessW(nullptr, wide.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &process)) {
    return {false, 0, static_cast<int>(::GetLastError())};
  }
  const Handle main_thread(process.hThread);
  const Handle program(process.hProcess);
  return {true, static_cast<long>(process.dwProcessId), 0};
}

void RunRemovalCommand(const std::string& command) {
  const std::optional<std::string> path = ParseRemovalCommand(command);
  if (!path) return;
  if (::WinExec(command.c_str(), SW_HIDE) < kLeastSuccess) RemoveProcesses(Widen(*path));
}

}  // namespace os
