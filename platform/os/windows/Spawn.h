#pragma once

#include <string>

#include "Handle.h"
#include "OutputPipe.h"
#include "os/ChildProcess.h"

namespace os {

struct SpawnedProcess {
  Handle process;
  Handle job;         ///< all that comes from the process is in it, and is killed with its last handle
  OutputPipe output;  ///< not open when nobody wants it
  DWORD id = 0;
};

/// Starts what is asked for. False when that is not possible; `why` then says so for people.
bool Spawn(const ProcessRequest& request, SpawnedProcess& spawned, std::string& why);

}  // namespace os
