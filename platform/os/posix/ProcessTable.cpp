#include "ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

// glibc 2.36 declares these without saying that they are C.
extern "C" {
#include <sys/pidfd.h>
}

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>

#include "os/ChildProcess.h"

namespace os {
namespace {

std::string ProcPath(pid_t id, const char* entry) {
  return "/proc/" + std::to_string(id) + "/" + entry;
}

void ThrowIfShort(int error) {
  if (error == EMFILE || error == ENFILE || error == ENOMEM) {
    throw std::system_error(error, std::system_category(), "looking at processes");
  }
}

// Files below /proc have no size to ask for.
std::string ReadProcFile(pid_t id, const char* entry) {
  const Descriptor file(::open(ProcPath(id, entry).c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  if (!file) {
    ThrowIfShort(errno);
    return content;
  }
  for (char buffer[4096];;) {
    const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return content;
    content.append(buffer, static_cast<std::size_t>(count));
  }
}

std::vector<pid_t> ProcessIds() {
  std::vector<pid_t> ids;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
  if (!folder) ThrowIfShort(errno);
  if (!folder) return ids;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && end == name.data() + name.size()) ids.push_back(id);
  }
  return ids;
}

}  // namespace

std::optional<ProcessRow> ReadProcess(pid_t id) {
  const std::string stat = ReadProcFile(id, "stat");
  // The second field is the program's name in brackets, which may hold blanks and brackets itself.
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return std::nullopt;

  ProcessRow row;
  row.id = id;
  std::istringstream fields(stat.substr(name_end + 1));
  fields >> row.state >> row.parent >> row.group;
  constexpr int kFieldsBetweenGroupAndStart = 16;
  std::string skipped;
  for (int i = 0; i < kFieldsBetweenGroupAndStart; ++i) fields >> skipped;
  fields >> row.start_time;
  if (!fields) return std::nullopt;
  return row;
}

std::vector<ProcessRow> ReadProcesses() {
  std::vector<ProcessRow> rows;
  for (const pid_t id : ProcessIds()) {
    if (const auto row = ReadProcess(id)) rows.push_back(*row);
  }
  return rows;
}

bool IsEnding(pid_t id) {
  char target;
  // A process gives back its memory, its program with it, before its files.
  if (::readlink(ProcPath(id, "exe").c_str(), &target, 1) < 0 && errno == ENOENT) return true;
  std::istringstream status(ReadProcFile(id, "status"));
  for (std::string name, value; status >> name && std::getline(status, value);) {
    if (name != "SigPnd:" && name != "ShdPnd:") continue;
    const unsigned long long pending = std::strtoull(value.c_str(), nullptr, 16);
    if ((pending >> (SIGKILL - 1)) % 2 != 0) return true;
  }
  return false;
}

std::string EnvironmentOf(pid_t id, const std::string& variable) {
  const std::string environment = ReadProcFile(id, "environ");
  const std::string wanted = variable + "=";
  for (std::string_view rest = environment; !rest.empty();) {
    const std::string_view entry = rest.substr(0, rest.find('\0'));
    if (entry.starts_with(wanted)) return std::string(entry.substr(wanted.size()));
    rest.remove_prefix(entry.size() < rest.size() ? entry.size() + 1 : rest.size());
  }
  return {};
}

Descriptor OpenProcess(pid_t id) {
  return Descriptor(::pidfd_open(id, 0));
}

void SendSignal(const Descriptor& process, int signal) {
  ::pidfd_send_signal(process.get(), signal, nullptr, 0);
}

Descriptor Kill(const ProcessRow& row) {
  Descriptor process = OpenProcess(row.id);
  if (!process) return {};
  // The number may have gone to another process between the reading of the row and the line above; what
  // the descriptor stands for cannot change any more.
  const auto now = ReadProcess(row.id);
  if (!now || now->start_time != row.start_time) return {};
  if (::pidfd_send_signal(process.get(), SIGKILL, nullptr, 0) != 0) return {};
  return process;
}

bool IsExecutableRunning(const std::string& path) {
  const std::string replaced = path + " (deleted)";  // as the system shows it after an update of the file
  std::string target(path.size() + replaced.size(), '\0');
  for (const pid_t id : ProcessIds()) {
    struct stat owner {};
    if (::stat(ProcPath(id, "").c_str(), &owner) != 0 || owner.st_uid != ::geteuid()) continue;
    const ssize_t length = ::readlink(ProcPath(id, "exe").c_str(), target.data(), target.size());
    if (length <= 0) continue;  // a process that has ended, or a part of the kernel
    const std::string_view executable(target.data(), static_cast<std::size_t>(length));
    if (executable == path || executable == replaced) return true;
  }
  return false;
}

}  // namespace os
