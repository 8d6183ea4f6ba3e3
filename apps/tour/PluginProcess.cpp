#include "PluginProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace tour {
namespace {

constexpr int kExitNotStarted = 127;

// Between fork and exec, where little may be called.
[[noreturn]] void Become(char* const* argv, int output, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(kExitNotStarted);  // it died before the line above
  ::setpgid(0, 0);  // Ctrl-C is for the host, which then ends its plugins in order
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  ::execv(argv[0], argv);
  const char* const reason = std::strerror(errno);
  (void)!::write(STDERR_FILENO, reason, std::strlen(reason));
  ::_exit(kExitNotStarted);
}

std::string HowItEnded(int status) {
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

PluginProcess::PluginProcess(const std::string& program, std::vector<std::string> arguments, Handler on_line,
                             Handler on_end) {
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for " + program);
  const pid_t parent = ::getpid();
  id_ = ::fork();
  if (id_ == 0) Become(argv.data(), output[1], parent);
  ::close(output[1]);
  if (id_ < 0) {
    ::close(output[0]);
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(errno));
  }
  watcher_ = std::thread(
      [this, fd = output[0], lines = std::move(on_line), end = std::move(on_end)] { Watch(fd, lines, end); });
}

PluginProcess::~PluginProcess() {
  Kill();
  watcher_.join();
}

void PluginProcess::Kill() {
  const std::lock_guard lock(mutex_);
  if (!ended_) ::kill(id_, SIGKILL);
}

void PluginProcess::Watch(int output, const Handler& on_line, const Handler& on_end) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(output, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
      on_line(text.substr(0, end));
    }
  }
  ::close(output);
  if (!text.empty()) on_line(text);

  // Its id stays its own until it is collected below, where Kill cannot be in between.
  siginfo_t ignored{};
  while (::waitid(P_PID, static_cast<id_t>(id_), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  int status = 0;
  {
    const std::lock_guard lock(mutex_);
    ::waitpid(id_, &status, 0);
    ended_ = true;
  }
  on_end(HowItEnded(status));
}

}  // namespace tour
