#include "os/PerThread.h"

#include <system_error>

#include "Handle.h"

// Not in a header of MinGW.
extern "C" NTSYSAPI BOOLEAN NTAPI RtlDllShutdownInProgress();

namespace os {

bool AreOtherThreadsGone() {
  return ::RtlDllShutdownInProgress() != FALSE;
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

bool ThreadSlot::Set(void* value) {
  return ::FlsSetValue(slot_, value) != FALSE;
}

}  // namespace os
