#include "ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace tolm::test {
namespace {

constexpr int kNotStarted = 127;

// Between fork and exec, where little may be called.
[[noreturn]] void Become(char* const* command, int input, int output, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(kNotStarted);
  ::dup2(input, STDIN_FILENO);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  ::execv(command[0], command);
  ::_exit(kNotStarted);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Exit& exit) {
  return exit.signal != 0 ? out << "signal " << exit.signal : out << "status " << exit.status;
}

ChildProcess::ChildProcess(std::vector<std::string> command) {
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);

  int input[2];  // sockets: typing for a child that has ended raises no signal then
  int output[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0 || ::pipe2(output, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t parent = ::getpid();
  id_ = ::fork();
  if (id_ == 0) Become(argv.data(), input[0], output[1], parent);
  ::close(input[0]);
  ::close(output[1]);
  input_ = input[1];
  if (id_ < 0) throw std::runtime_error("cannot start " + command.front());
  watcher_ = std::thread([this, fd = output[0]] { Watch(fd); });
}

ChildProcess::~ChildProcess() {
  Signal(SIGKILL);
  CloseInput();
  watcher_.join();
}

void ChildProcess::Signal(int signal) {
  const std::lock_guard lock(mutex_);
  if (!exit_) ::kill(id_, signal);
}

void ChildProcess::Type(const std::string& line) {
  const std::string whole = line + "\n";
  // A child that has ended is noticed where its answer is missed.
  (void)!::send(input_, whole.data(), whole.size(), MSG_NOSIGNAL);
}

void ChildProcess::CloseInput() {
  if (const int input = std::exchange(input_, -1); input >= 0) ::close(input);
}

std::optional<std::string> ChildProcess::WaitForLine(const std::string& text,
                                                     std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  std::optional<std::string> line;
  changed_.wait_for(lock, limit, [&] {
    const std::size_t found = printed_.find(text);
    const std::size_t end = found == std::string::npos ? found : printed_.find('\n', found);
    if (end == std::string::npos) return exit_.has_value();
    const std::size_t before = printed_.rfind('\n', found);
    const std::size_t begin = before == std::string::npos ? 0 : before + 1;
    line = printed_.substr(begin, end - begin);
    return true;
  });
  return line;
}

bool ChildProcess::WaitForLines(const std::string& text, std::size_t count, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return Count(text) >= count || exit_; }) &&
         Count(text) >= count;
}

std::size_t ChildProcess::CountLines(const std::string& text) const {
  const std::lock_guard lock(mutex_);
  return Count(text);
}

std::size_t ChildProcess::Count(const std::string& text) const {
  std::size_t count = 0;
  for (std::size_t begin = 0, end = 0; (end = printed_.find('\n', begin)) != printed_.npos; begin = end + 1) {
    if (std::string_view(printed_).substr(begin, end - begin).find(text) != printed_.npos) ++count;
  }
  return count;
}

std::optional<Exit> ChildProcess::WaitExit(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [this] { return exit_.has_value(); });
  return exit_;
}

std::string ChildProcess::Output() const {
  const std::lock_guard lock(mutex_);
  return printed_;
}

void ChildProcess::Watch(int output) {
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(output, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    const std::lock_guard lock(mutex_);
    printed_.append(buffer, static_cast<std::size_t>(count));
    changed_.notify_all();
  }
  ::close(output);

  // The id stays the child's until it is collected below, where Signal cannot be in between.
  siginfo_t ignored{};
  while (::waitid(P_PID, static_cast<id_t>(id_), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  const std::lock_guard lock(mutex_);
  int status = 0;
  ::waitpid(id_, &status, 0);
  exit_ = WIFSIGNALED(status) ? Exit{-1, WTERMSIG(status)} : Exit{WEXITSTATUS(status), 0};
  changed_.notify_all();
}

std::string ThisProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace tolm::test
