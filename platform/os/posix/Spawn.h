#pragma once

#include <string>

#include "Descriptor.h"
#include "ProcessTree.h"
#include "os/ChildProcess.h"

namespace os {

struct SpawnedProcess {
  TreeRoot root;
  Descriptor process;  ///< readable when it has ended
  Descriptor output;   ///< what it writes, without waiting; none when nobody wants it
};

/// Starts what `request` says. False when it does not run; `why` says so as ChildProcess::Start has it, and
/// a process that was made is collected already.
bool Spawn(const ProcessRequest& request, SpawnedProcess& spawned, std::string& why);

}  // namespace os
