#include "posix/ProcessesBelow.h"

#include <sched.h>
#include <signal.h>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Process.h"

namespace bench {

namespace fs = std::filesystem;

namespace {

constexpr auto kLongestEnd = std::chrono::seconds(2);

}  // namespace

std::map<pid_t, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<pid_t, fs::path> processes;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    const fs::path program = fs::read_symlink(entry.path() / "exe", gone);
    if (!gone && program.string().starts_with(folder.string() + '/')) processes[id] = program;
  }
  return processes;
}

void EndProcessesBelow(const fs::path& folder) try {
  const fs::path canonical = fs::canonical(folder);  // as the system shows it
  const auto deadline = std::chrono::steady_clock::now() + kLongestEnd;
  // Some may just be starting others.
  for (auto left = ProcessesBelow(canonical); !left.empty(); left = ProcessesBelow(canonical)) {
    for (const auto& entry : left) ::kill(entry.first, SIGKILL);
    if (std::chrono::steady_clock::now() >= deadline) throw std::runtime_error("they do not end");
    ::sched_yield();
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "frame_bench: what runs in %s is left alone: %s\n", folder.c_str(), error.what());
}

}  // namespace bench
