#include "OwnThread.h"

#include <windows.h>

namespace tolm::test {

// Not in every header of the system's interface, so it is asked for by name.
std::string OwnThreadName() {
  using Tell = HRESULT(WINAPI*)(HANDLE, PWSTR*);
  const FARPROC found = ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription");
  PWSTR wide = nullptr;
  if (found == nullptr ||
      FAILED(reinterpret_cast<Tell>(reinterpret_cast<void*>(found))(::GetCurrentThread(), &wide))) {
    return {};
  }
  std::string name;
  for (const wchar_t* at = wide; *at != L'\0'; ++at) name += static_cast<char>(*at);
  ::LocalFree(wide);
  return name;
}

}  // namespace tolm::test
