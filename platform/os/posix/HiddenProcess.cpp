#include "os/HiddenProcess.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

#include "../common/CommandLine.h"
#include "Descriptor.h"

namespace os {
namespace {

// -------------------------------------------------------------------------------------- Starting

void TurnToSlashes(std::string& path) {
  std::replace(path.begin(), path.end(), '\\', '/');
}

/// Where `program` lies: as it stands, or in a folder of PATH when it has no folder of its own.
std::string FindProgram(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  const char* const path = std::getenv("PATH");
  std::string_view folders = path != nullptr ? path : "";
  while (!folders.empty()) {
    const std::string_view folder = folders.substr(0, folders.find(':'));
    folders.remove_prefix(std::min(folder.size() + 1, folders.size()));
    if (folder.empty()) continue;
    std::string candidate = std::string(folder) + "/" + program;
    struct stat status {};
    if (::stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return {};
}

/// What the new processes tell the caller, through a pipe that ends when the program runs.
struct Report {
  enum Kind : int { kProcessId, kError } kind;
  int value;
};

// What is marked so below runs between fork and exec, where threads of the caller that are gone may hold
// any lock for ever: system calls only, and nothing that allocates.

/// Between fork and exec.
[[noreturn]] void Fail(int pipe, int error) {
  const Report report{Report::kError, error};
  if (::write(pipe, &report, sizeof report) < 0) {
    // Nobody reads any more.
  }
  ::_exit(127);
}

/// Between fork and exec. The caller's handlers mean nothing to the program, and what the caller ignores
/// or blocks would be inherited.
void ResetSignals() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Between fork and exec: becomes the program.
[[noreturn]] void RunProgram(const char* path, char* const* arguments, int pipe) {
  constexpr int kPipe = 3;
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) Fail(pipe, errno);
  // Both may lie where something else is to be put, so that they are moved out of the way first.
  const int null_moved = ::fcntl(null, F_DUPFD_CLOEXEC, kPipe + 1);
  const int pipe_moved = ::fcntl(pipe, F_DUPFD_CLOEXEC, kPipe + 1);
  if (null_moved < 0 || pipe_moved < 0) Fail(pipe, errno);
  for (int stream = 0; stream < kPipe; ++stream) {
    if (::dup2(null_moved, stream) < 0) Fail(pipe_moved, errno);
  }
  if (::dup3(pipe_moved, kPipe, O_CLOEXEC) < 0) Fail(pipe_moved, errno);
  if (::close_range(kPipe + 1, ~0U, 0) != 0) Fail(kPipe, errno);
  ResetSignals();
  ::execv(path, arguments);
  Fail(kPipe, errno);
}

/// Between fork and exec: leaves the caller's session, and leaves the program to the system, which
/// reaps it.
[[noreturn]] void LeaveProgram(const char* path, char* const* arguments, int pipe) {
  ::setsid();
  const pid_t program = ::fork();
  if (program == 0) RunProgram(path, arguments, pipe);
  if (program < 0) Fail(pipe, errno);
  const Report report{Report::kProcessId, program};
  ::_exit(::write(pipe, &report, sizeof report) == sizeof report ? 0 : 127);
}

bool ReadReport(const Descriptor& pipe, Report& report) {
  ssize_t got = 0;
  do {
    got = ::read(pipe.get(), &report, sizeof report);
  } while (got < 0 && errno == EINTR);
  return got == sizeof report;
}

StartedProcess Start(const std::string& path, char* const* arguments) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return {false, 0, errno};
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);

  // No handler of the caller's is to run in the copies of it.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t between = ::fork();
  if (between == 0) LeaveProgram(path.c_str(), arguments, writing.get());
  const int fork_error = errno;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (between < 0) return {false, 0, fork_error};

  writing = Descriptor();
  int process_id = 0;
  int error = 0;
  Report report{};
  while (ReadReport(reading, report)) {
    int& told = report.kind == Report::kProcessId ? process_id : error;
    told = report.value;
  }
  while (::waitpid(between, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (error == 0 && process_id == 0) error = ECHILD;  // killed before it came to anything
  return error == 0 ? StartedProcess{true, process_id, 0} : StartedProcess{false, 0, error};
}

// -------------------------------------------------------------------------------------- Removing

std::optional<pid_t> ProcessId(std::string_view folder) {
  pid_t id = 0;
  const char* const end = folder.data() + folder.size();
  const auto [behind, error] = std::from_chars(folder.data(), end, id);
  if (error != std::errc() || behind != end) return std::nullopt;
  return id;
}

/// Whether process `id` is this user's and runs the executable `path`, which may have been replaced or
/// removed since.
bool Runs(pid_t id, std::string_view path) {
  const std::string folder = "/proc/" + std::to_string(id);
  struct stat status {};
  if (::stat(folder.c_str(), &status) != 0 || status.st_uid != ::geteuid()) return false;
  char link[PATH_MAX];
  const ssize_t length = ::readlink((folder + "/exe").c_str(), link, sizeof link);
  if (length <= 0) return false;
  std::string_view executable(link, static_cast<std::size_t>(length));
  if (executable == path) return true;
  constexpr std::string_view kDeleted = " (deleted)";
  if (!executable.ends_with(kDeleted)) return false;
  executable.remove_suffix(kDeleted.size());
  return executable == path;
}

/// Ends process `id` if it is still the one that runs `path` and not a later one of the same number.
void Remove(pid_t id, std::string_view path) {
  const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, id, 0)));
  if (!process && errno != ENOSYS) return;
  if (!Runs(id, path)) return;
  if (process) {
    ::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0);
  } else {
    ::kill(id, SIGKILL);
  }
}

}  // namespace

StartedProcess StartHidden(const std::string& command_line) {
  std::vector<CommandToken> tokens = SplitCommandTokens(command_line);
  if (tokens.empty()) return {false, 0, EINVAL};
  tokens.front().quoted = true;  // the program is a path in any case
  std::vector<char*> arguments;
  for (CommandToken& token : tokens) {
    if (token.quoted) TurnToSlashes(token.text);
    arguments.push_back(token.text.data());
  }
  arguments.push_back(nullptr);
  const std::string program = FindProgram(tokens.front().text);
  if (program.empty()) return {false, 0, ENOENT};
  return Start(program, arguments.data());
}

void RunRemovalCommand(const std::string& command) {
  std::optional<std::string> path = ParseRemovalCommand(command);
  if (!path) return;
  TurnToSlashes(*path);
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
  if (processes == nullptr) return;
  while (const dirent* const entry = ::readdir(processes.get())) {
    const std::optional<pid_t> id = ProcessId(entry->d_name);
    if (id && *id != ::getpid() && Runs(*id, *path)) Remove(*id, *path);
  }
}

}  // namespace os
