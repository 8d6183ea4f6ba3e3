#include "support/OwnResources.h"

#include <windows.h>

#include <tlhelp32.h>

#include <cstdint>

#include "support/windows/OwnedHandle.h"

namespace tolm::test {
namespace {

// Handles are multiples of four, and the lowest that is free is given out first.
constexpr std::uintptr_t kStep = 4;
constexpr std::uintptr_t kGap = 500 * kStep;

// One by one, for Wine, which has no count.
long CountByLooking() {
  long count = 0;
  for (std::uintptr_t handle = kStep, last = 0; handle < last + kGap; handle += kStep) {
    DWORD flags = 0;
    if (!::GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags)) continue;
    last = handle;
    ++count;
  }
  return count;
}

}  // namespace

const long kDescriptorsOfLocks = 20;

long OpenDescriptors() {
  DWORD count = 0;
  if (!::GetProcessHandleCount(::GetCurrentProcess(), &count)) return -1;
  return count != 0 ? static_cast<long>(count) : CountByLooking();
}

long RunningThreads() {
  const OwnedHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!snapshot) return -1;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  long count = 0;
  for (BOOL more = ::Thread32First(snapshot.get(), &entry); more;
       more = ::Thread32Next(snapshot.get(), &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
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
