#include "os/PerThread.h"

#include <system_error>

#include "Handle.h"

namespace os {
namespace {

using IsEnding = BOOLEAN(NTAPI*)();

// Looked up while all threads live, and not linked, so that whoever links the plugin library need not name
// ntdll.
const auto g_is_ending = reinterpret_cast<IsEnding>(
    reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));

}  // namespace

bool AreOtherThreadsGone() {
  return g_is_ending != nullptr && g_is_ending() != FALSE;
}

// Slots of fibers and not of threads, since only these call back when a thread ends.
ThreadSlot::ThreadSlot(Destroy destroy)
    : slot_(::FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(reinterpret_cast<void*>(destroy)))) {
  if (slot_ == FLS_OUT_OF_INDEXES) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                            "a slot for each thread");
  }
}

void* ThreadSlot::Get() const {
  return ::FlsGetValue(slot_);
}

bool ThreadSlot::Set(void* value) const {
  return ::FlsSetValue(slot_, value) != FALSE;
}

}  // namespace os
