#pragma once

#include <string>

namespace trust {

/// What the system says of a process.
struct ProcessState {
  double resident_kib = 0;
  double descriptors = 0;
  double threads = 0;
  double processor_seconds = 0;  ///< since it began
};

/// Throws when there is no such process.
ProcessState StateOf(int process);

/// What this process's allocator has given out and not been given back, in KiB.
double AllocatedKiB();

/// Whether none of its threads runs any more since it was halted.
bool IsHalted(int process);

/// In KiB, since it began or bench::ForgetPeak.
double PeakOf(int process);

}  // namespace trust
