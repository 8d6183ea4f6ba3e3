#include <windows.h>

#include "PortRows.h"

namespace os {

// Wine looks for sockets in each process, and most are only in its server.
bool TellsOwners() {
  return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr;
}

}  // namespace os
