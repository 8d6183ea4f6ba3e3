#pragma once

namespace tolm::test {

/// What this process holds of the system; twin files tell. Only the difference of two looks means something.
/// Descriptors: what the system calls them, or handles.
long OpenDescriptors();
long RunningThreads();
/// Of processor time, in all its threads so far.
double ProcessorSeconds();

/// So many descriptors may come without being a leak: where locks are given theirs when they are first
/// waited for.
extern const long kDescriptorsOfLocks;

}  // namespace tolm::test
