#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include "support/NativeChild.h"

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

class PosixChild final : public NativeChild {
 public:
  PosixChild(pid_t id, int input, int output) : id_(id), input_(input), output_(output) {}
  ~PosixChild() override {
    CloseInput();
    ::close(output_);
  }

  ProcessId id() const override { return id_; }
  void Interrupt() override { ::kill(id_, SIGINT); }

  void Write(const std::string& text) override {
    (void)!::send(input_, text.data(), text.size(), MSG_NOSIGNAL);
  }
  void CloseInput() override {
    if (const int input = std::exchange(input_, -1); input >= 0) ::close(input);
  }

  std::size_t Read(char* buffer, std::size_t size) override {
    for (;;) {
      const ssize_t count = ::read(output_, buffer, size);
      if (count >= 0) return static_cast<std::size_t>(count);
      if (errno != EINTR) return 0;
    }
  }

  void WaitEnd() override {
    siginfo_t ignored{};
    while (::waitid(P_PID, static_cast<id_t>(id_), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
  }

  Exit Collect() override {
    int status = 0;
    ::waitpid(id_, &status, 0);
    if (WIFEXITED(status)) return {WEXITSTATUS(status), false};
    return {-1, WTERMSIG(status) == SIGKILL};
  }

 private:
  const pid_t id_;
  int input_;
  const int output_;
};

}  // namespace

std::unique_ptr<NativeChild> NativeChild::Start(std::vector<std::string> command) {
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);

  int input[2];  // sockets: typing for a child that has ended raises no signal then
  int output[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0 || ::pipe2(output, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t parent = ::getpid();
  const pid_t id = ::fork();
  if (id == 0) Become(argv.data(), input[0], output[1], parent);
  ::close(input[0]);
  ::close(output[1]);
  if (id < 0) throw std::runtime_error("cannot start " + command.front());
  return std::make_unique<PosixChild>(id, input[1], output[0]);
}

}  // namespace tolm::test
