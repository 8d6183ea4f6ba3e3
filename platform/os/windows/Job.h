#pragma once

#include <string>

#include "Handle.h"
#include "SystemMessage.h"

namespace os {

/// The exit status of processes that we end.
inline constexpr UINT kKilledStatus = 1;

/// A job whose processes, descendants included, are killed when its last handle is closed, that is also
/// when this process is killed. None when the system says no.
Handle MakeJob();

/// Kills what is in the job and waits, for a second at most, until nothing of it runs.
void EndJob(const Handle& job);

/// The event through which the process with this number is asked to end.
std::wstring StopEventName(DWORD process_id);

}  // namespace os
