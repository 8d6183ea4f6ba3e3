#include "Handle.h"

#include <tlhelp32.h>

#include <string>
#include <vector>

#include "ProcessUser.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

std::wstring ExecutableOf(const Handle& process) {
  constexpr DWORD kLongestPath = 32768;
  std::wstring path(kLongestPath, L'\0');
  DWORD length = kLongestPath;
  if (!::QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) return {};
  path.resize(length);
  return path;
}

}  // namespace

bool IsExecutableRunning(const std::string& path) {
  const std::wstring wanted = Widen(path);
  const std::vector<char> user = OwnUser();
  const Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return false;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
       more = ::Process32NextW(snapshot.get(), &entry)) {
    const Handle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, entry.th32ProcessID));
    // One that has ended is listed for as long as somebody holds a handle of it.
    if (!process || ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0) continue;
    const std::wstring executable = ExecutableOf(process);
    if (::CompareStringOrdinal(executable.c_str(), -1, wanted.c_str(), -1, TRUE) == CSTR_EQUAL &&
        UserOf(process) == user) {
      return true;
    }
  }
  return false;
}

}  // namespace os
