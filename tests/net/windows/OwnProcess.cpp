#include "OwnProcess.h"

#include <windows.h>

#include <tlhelp32.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace tolm::test {
namespace {

// NtQuerySystemInformation, which headers declare without this class of information.
using Query = LONG(WINAPI*)(ULONG information_class, void* memory, ULONG size, ULONG* needed);
constexpr ULONG kExtendedHandles = 64;
constexpr auto kTooShort = static_cast<LONG>(0xC0000004);

/// SYSTEM_HANDLE_TABLE_ENTRY_INFO_EX; in front of the list stand their number and a field without use.
struct HandleEntry {
  void* object;
  ULONG_PTR process;
  ULONG_PTR handle;
  ULONG access;
  USHORT trace;
  USHORT type;
  ULONG attributes;
  ULONG reserved;
};
constexpr std::size_t kListHeader = 2 * sizeof(ULONG_PTR);

}  // namespace

std::size_t CountThreads() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  std::size_t count = 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    count += entry.th32OwnerProcessID == ::GetCurrentProcessId() ? 1 : 0;
  }
  ::CloseHandle(snapshot);
  return count;
}

// Counted in the list of all handles: GetProcessHandleCount says 0 on systems that only imitate Windows.
std::size_t CountDescriptors() {
  const FARPROC found = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation");
  if (found == nullptr) return 0;
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(found));
  std::vector<char> memory(1U << 20);
  ULONG size = 0;
  while (query(kExtendedHandles, memory.data(), static_cast<ULONG>(memory.size()), &size) == kTooShort) {
    memory.resize(2 * memory.size());
  }
  ULONG_PTR entries = 0;
  std::memcpy(&entries, memory.data(), sizeof entries);
  std::size_t count = 0;
  for (ULONG_PTR i = 0; i < entries; ++i) {
    HandleEntry entry;
    std::memcpy(&entry, memory.data() + kListHeader + i * sizeof entry, sizeof entry);
    count += entry.process == ::GetCurrentProcessId() ? 1 : 0;
  }
  return count;
}

double ProcessorSeconds() {
  FILETIME made{};
  FILETIME ended{};
  FILETIME kernel{};
  FILETIME user{};
  ::GetProcessTimes(::GetCurrentProcess(), &made, &ended, &kernel, &user);
  const auto seconds = [](const FILETIME& time) {
    return 1e-7 * static_cast<double>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
  };
  return seconds(kernel) + seconds(user);
}

}  // namespace tolm::test
