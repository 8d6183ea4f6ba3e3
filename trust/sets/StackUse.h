#pragma once

#include <cstddef>
#include <functional>

namespace trust {

/// How many bytes of its stack a thread uses that does `act`. The stack has `kStackBytes`; whoever needs more
/// ends the process.
std::size_t StackUse(const std::function<void()>& act);

/// Less than a recursion over a document of 100,000 levels needs, however small its frames.
inline constexpr std::size_t kStackBytes = TRUST_SANITIZED ? 2048 * 1024 : 512 * 1024;

}  // namespace trust
