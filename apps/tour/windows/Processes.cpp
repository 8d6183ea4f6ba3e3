#include "Processes.h"

#include <windows.h>

#include <tlhelp32.h>

#include <memory>

namespace tour {

namespace fs = std::filesystem;

namespace {

struct CloseHandles {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, CloseHandles>;

fs::path ExecutableOf(const OwnedHandle& process) {
  constexpr DWORD kLongestPath = 32768;
  std::wstring path(kLongestPath, L'\0');
  DWORD length = kLongestPath;
  if (!::QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) return {};
  path.resize(length);
  return path;
}

bool LiesBelow(const fs::path& path, const fs::path& folder) {
  const std::wstring front = folder.native() + L"\\";
  const int size = static_cast<int>(front.size());
  return path.native().size() > front.size() &&
         ::CompareStringOrdinal(path.c_str(), size, front.c_str(), size, TRUE) == CSTR_EQUAL;
}

}  // namespace

ProcessId OwnProcessId() {
  return static_cast<ProcessId>(::GetCurrentProcessId());
}

std::map<ProcessId, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<ProcessId, fs::path> processes;
  const HANDLE made = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (made == INVALID_HANDLE_VALUE) return processes;
  const OwnedHandle snapshot(made);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(made, &entry); more; more = ::Process32NextW(made, &entry)) {
    if (entry.th32ProcessID == ::GetCurrentProcessId()) continue;
    const OwnedHandle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, entry.th32ProcessID));
    // One that has ended is listed for as long as somebody holds a handle of it.
    if (!process || ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0) continue;
    fs::path program = ExecutableOf(process);
    if (LiesBelow(program, folder))
      processes[static_cast<ProcessId>(entry.th32ProcessID)] = std::move(program);
  }
  return processes;
}

void KillProcess(ProcessId id) {
  const OwnedHandle process(::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(id)));
  if (process) ::TerminateProcess(process.get(), 1);
}

std::string KillCommand(ProcessId id) {
  return "taskkill /F /PID " + std::to_string(id);
}

}  // namespace tour
