#pragma once

#include <filesystem>

#include "support/System.h"
#include "support/Wait.h"

namespace tolm::test {

/// Kills all of them, also what they start meanwhile. For folders of the test's own only.
inline void KillProcessesBelow(const std::filesystem::path& folder) {
  WaitFor([&] {
    const auto left = ProcessesBelow(folder);
    for (const auto& process : left) KillProcess(process.first);
    return left.empty();
  });
}

}  // namespace tolm::test
