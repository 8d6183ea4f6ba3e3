#pragma once

// What this process uses. Twin files: posix/OwnProcess.cpp and windows/OwnProcess.cpp.

#include <cstddef>

namespace tolm::test {

std::size_t CountThreads();
/// Of files, sockets and whatever else the system counts.
std::size_t CountDescriptors();
double ProcessorSeconds();

}  // namespace tolm::test
