#include "os/ThreadName.h"

#include "Handle.h"

namespace os {

// Not in every header of the system's interface, so it is asked for by name.
void SetThreadName(const char* name) {
  using Describe = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  const FARPROC found = ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
  if (found == nullptr) return;
  reinterpret_cast<Describe>(reinterpret_cast<void*>(found))(::GetCurrentThread(), Widen(name).c_str());
}

}  // namespace os
