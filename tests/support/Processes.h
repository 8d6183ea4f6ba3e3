#pragma once

#include <sys/types.h>

#include <charconv>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "support/Wait.h"

namespace tolm::test {

/// Every process that runs a program below `folder`: id and program.
inline std::map<pid_t, std::filesystem::path> ProcessesBelow(const std::filesystem::path& folder) {
  std::map<pid_t, std::filesystem::path> processes;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    const auto program = std::filesystem::read_symlink(entry.path() / "exe", gone);
    if (!gone && program.string().starts_with(folder.string() + "/")) processes[id] = program;
  }
  return processes;
}

/// Kills all of them, also what they start meanwhile. For folders of the test's own only.
inline void KillProcessesBelow(const std::filesystem::path& folder) {
  WaitFor([&] {
    const auto left = ProcessesBelow(folder);
    for (const auto& process : left) ::kill(process.first, SIGKILL);
    return left.empty();
  });
}

}  // namespace tolm::test
