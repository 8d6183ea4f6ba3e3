#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace tour {

// Twin files: posix/Processes.cpp and windows/Processes.cpp.

using ProcessId = long;

ProcessId OwnProcessId();

/// The processes of this user that run a program below `folder`, but for this one: id and program.
std::map<ProcessId, std::filesystem::path> ProcessesBelow(const std::filesystem::path& folder);

/// As a crash: without any chance to clean up. Does not wait for its end.
void KillProcess(ProcessId id);
/// What a person types to do the same.
std::string KillCommand(ProcessId id);

}  // namespace tour
