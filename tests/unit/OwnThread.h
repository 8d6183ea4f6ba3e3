#pragma once

#include <string>

namespace tolm::test {

/// The calling thread's name as debuggers see it; empty when it has none. Twin files: posix/OwnThread.cpp and
/// windows/OwnThread.cpp.
std::string OwnThreadName();

}  // namespace tolm::test
