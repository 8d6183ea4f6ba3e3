#include "RunningExecutable.h"

#include <tlhelp32.h>

#include <filesystem>
#include <utility>

#include "ProcessUser.h"
#include "WideText.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

constexpr DWORD kLongestPath = 32768;

std::wstring ExecutableOf(const Handle& process) {
  std::wstring path(kLongestPath, L'\0');
  DWORD length = kLongestPath;
  if (!::QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) return {};
  path.resize(length);
  return path;
}

/// As the system shows it: from the root, with backslashes. Empty when it does not begin at a root.
std::wstring FullPath(const std::wstring& path) {
  if (!std::filesystem::path(path).is_absolute()) return {};
  std::wstring full(kLongestPath, L'\0');
  const DWORD length = ::GetFullPathNameW(path.c_str(), kLongestPath, full.data(), nullptr);
  full.resize(length < kLongestPath ? length : 0);
  return full;
}

bool IsSamePath(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                TRUE) == CSTR_EQUAL;
}

}  // namespace

std::vector<Handle> ProcessesRunning(const std::wstring& path, DWORD rights) {
  std::vector<Handle> running;
  const std::wstring wanted = FullPath(path);
  const std::vector<char> user = OwnUser();
  const Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot || wanted.empty() || user.empty()) return running;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
       more = ::Process32NextW(snapshot.get(), &entry)) {
    // The open handle keeps the number from becoming another process's.
    Handle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE | rights, FALSE, entry.th32ProcessID));
    // One that has ended is listed for as long as somebody holds a handle of it.
    if (!process || ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0) continue;
    if (IsSamePath(ExecutableOf(process), wanted) && UserOf(process) == user) {
      running.push_back(std::move(process));
    }
  }
  return running;
}

bool IsExecutableRunning(const std::string& path) {
  return !ProcessesRunning(FromUtf8(path), 0).empty();
}

}  // namespace os
