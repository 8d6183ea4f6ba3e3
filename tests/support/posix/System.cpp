#include "support/System.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace tolm::test {

namespace fs = std::filesystem;

ProcessId OwnProcessId() {
  return ::getpid();
}

bool IsAlive(ProcessId id) {
  std::ifstream file("/proc/" + std::to_string(id) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos || name_end + 2 >= text.size()) return false;
  const char state = text[name_end + 2];
  return state != 'Z' && state != 'X';
}

void KillProcess(ProcessId id) {
  ::kill(static_cast<pid_t>(id), SIGKILL);
}

void AskProcessToEnd(ProcessId id) {
  ::kill(static_cast<pid_t>(id), SIGTERM);
}

void FreezeProcess(ProcessId id) {
  ::kill(static_cast<pid_t>(id), SIGSTOP);
}

void ThawProcess(ProcessId id) {
  ::kill(static_cast<pid_t>(id), SIGCONT);
}

std::map<ProcessId, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<ProcessId, fs::path> processes;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    ProcessId id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    const auto program = fs::read_symlink(entry.path() / "exe", gone);
    if (!gone && program.string().starts_with(folder.string() + "/")) processes[id] = program;
  }
  return processes;
}

fs::path ThisProgram() {
  return fs::read_symlink("/proc/self/exe");
}

fs::path ProgramFile(const fs::path& path) {
  return path;
}

fs::path MakeTempFolder() {
  std::string path = (fs::temp_directory_path() / "tolm-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make " + path);
  return path;
}

void SetVariable(const char* name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

int FreePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const bool bound = ::bind(probe, generic, size) == 0 && ::getsockname(probe, generic, &size) == 0;
  ::close(probe);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

void Nap() {
  ::poll(nullptr, 0, 1);
}

void WaitForever() {
  for (;;) ::pause();
}

}  // namespace tolm::test
