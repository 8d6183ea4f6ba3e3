#include "SmallStack.h"

#include <windows.h>

#include <stdexcept>

namespace tolm::test {
namespace {

DWORD WINAPI Act(void* act) {
  (*static_cast<std::function<void()>*>(act))();
  return 0;
}

}  // namespace

void RunOnSmallStack(std::size_t bytes, std::function<void()> act) {
  // Without the flag the size is what is handed out at once, of the megabytes that the program's file asks
  // for.
  const HANDLE thread =
      ::CreateThread(nullptr, bytes, &Act, &act, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) throw std::runtime_error("no thread with such a stack");
  ::WaitForSingleObject(thread, INFINITE);
  ::CloseHandle(thread);
}

}  // namespace tolm::test
