#pragma once

// The processes that the system shows, and signals that reach only the one that was meant.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Descriptor.h"

namespace os {

/// One process at the moment of reading. Number and start together belong to one process only.
struct ProcessRow {
  pid_t id = 0;
  pid_t parent = 0;
  pid_t group = 0;
  char state = '?';              ///< as /proc has it: 'Z' has ended and is not collected yet
  std::uint64_t start_time = 0;  ///< in ticks since the system started

  bool IsAlive() const { return state != 'Z' && state != 'X'; }
};

// To look needs memory and a descriptor. When there is none of either, these throw (std::system_error for the
// latter): nobody is to be taken for gone who was not looked for.

/// Nothing when there is no such process any more.
std::optional<ProcessRow> ReadProcess(pid_t id);

/// All processes; those that start or end meanwhile may be there or not.
std::vector<ProcessRow> ReadProcesses();

/// Whether process `id` has ended, or was killed and will have ended as soon as the system comes to it; what
/// such a process holds is still held. False where that cannot be seen. Throws as the others do.
bool IsEnding(pid_t id);

/// A variable of the environment that the process was started with; empty when it has none, or may not
/// be looked at.
std::string EnvironmentOf(pid_t id, const std::string& variable);

/// Kills the very process that `row` shows. The descriptor becomes readable when it has ended; it is
/// none when the process was gone already or may not be signalled.
Descriptor Kill(const ProcessRow& row);

/// A descriptor that stands for a process and becomes readable when it ends; none when there is no such
/// process.
Descriptor OpenProcess(pid_t id);

/// Sends `signal` to the process that `process` stands for, and to no later one.
void SendSignal(const Descriptor& process, int signal);

}  // namespace os
