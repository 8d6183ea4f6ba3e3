#include "Channel.h"

#include <windows.h>

#include <algorithm>
#include <system_error>

namespace bench {
namespace {

constexpr std::size_t kAtOnce = 1u << 30;

HANDLE HandleOf(std::intptr_t descriptor) {
  return reinterpret_cast<HANDLE>(descriptor);
}

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

}  // namespace

Channel::~Channel() {
  ::CloseHandle(HandleOf(descriptor_));
}

void Channel::Write(const char* data, std::size_t size) {
  while (size > 0) {
    DWORD written = 0;
    if (!::WriteFile(HandleOf(descriptor_), data, static_cast<DWORD>(std::min(size, kAtOnce)), &written,
                     nullptr)) {
      Fail("writing to a child or parent failed");
    }
    data += written;
    size -= written;
  }
}

bool Channel::Read(char* data, std::size_t size) {
  while (size > 0) {
    DWORD got = 0;
    if (!::ReadFile(HandleOf(descriptor_), data, static_cast<DWORD>(std::min(size, kAtOnce)), &got,
                    nullptr)) {
      const DWORD error = ::GetLastError();
      if (error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED) return false;
      Fail("reading from a child or parent failed");
    }
    data += got;
    size -= got;
  }
  return true;
}

// A pipe that is read as plainly as this one cannot be waited for with a limit, and to look again and again
// would disturb what is measured. Whoever waits for the whole measurement has a limit.
void Channel::AwaitInput() const {}

}  // namespace bench
