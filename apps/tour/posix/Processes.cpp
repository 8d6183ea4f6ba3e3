#include "Processes.h"

#include <unistd.h>

#include <charconv>
#include <csignal>
#include <system_error>

namespace tour {

namespace fs = std::filesystem;

ProcessId OwnProcessId() {
  return ::getpid();
}

std::map<ProcessId, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<ProcessId, fs::path> processes;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    ProcessId id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size() || id == OwnProcessId()) continue;
    const fs::path program = fs::read_symlink(entry.path() / "exe", gone);
    if (gone || program.lexically_relative(folder).string().starts_with("..")) continue;
    processes[id] = program;
  }
  return processes;
}

void KillProcess(ProcessId id) {
  ::kill(static_cast<pid_t>(id), SIGKILL);
}

std::string KillCommand(ProcessId id) {
  return "kill -9 " + std::to_string(id);
}

}  // namespace tour
