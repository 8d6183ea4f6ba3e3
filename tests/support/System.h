#pragma once

// What tests ask of the system. Twin files: posix/System.cpp and windows/System.cpp.

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tolm::test {

using ProcessId = long;

ProcessId OwnProcessId();
/// Whether it runs; one that has ended and is only not yet collected does not.
bool IsAlive(ProcessId id);
/// As a crash: without any chance to clean up. Does not wait for its end.
void KillProcess(ProcessId id);
/// Asks it to end in the way in which the system asks programs that use os::OnStopSignal: SIGTERM, or an
/// event of its own.
void AskProcessToEnd(ProcessId id);
/// It does nothing at all until it is thawed.
void FreezeProcess(ProcessId id);
void ThawProcess(ProcessId id);
/// Every process of this user that runs a program below `folder`: id and program.
std::map<ProcessId, std::filesystem::path> ProcessesBelow(const std::filesystem::path& folder);

/// This program, to be started again with other arguments.
std::filesystem::path ThisProgram();
/// A program's file: `path` with what the system puts behind the names of programs (".exe" or nothing).
std::filesystem::path ProgramFile(const std::filesystem::path& path);

/// A new folder with a name of its own in the temporary one; throws when it cannot be made.
std::filesystem::path MakeTempFolder();
/// Sets a variable of this process's environment, or removes it.
void SetVariable(const char* name, const std::optional<std::string>& value);
/// A TCP port of the loopback interface that is free at the moment.
int FreePort();
/// The time between two looks at a condition, about a millisecond. No test relies on how long it is, and no
/// stand-in of a clock sees it.
void Nap();
/// Until this process is ended from outside.
[[noreturn]] void WaitForever();

}  // namespace tolm::test
