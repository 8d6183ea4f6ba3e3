#pragma once

#include <cstddef>
#include <functional>

namespace tolm::test {

/// Runs `act` on a thread whose stack has `bytes`, and returns when it has ended. Throws when there can be no
/// such thread. Twin files: posix/SmallStack.cpp and windows/SmallStack.cpp.
void RunOnSmallStack(std::size_t bytes, std::function<void()> act);

}  // namespace tolm::test
