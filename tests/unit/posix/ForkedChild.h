#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/Wait.h"

namespace tolm::test {

/// What state the system shows a process in: 'R' runs, 'S' sleeps, 'Z' has ended and is not waited for;
/// 0 when there is none.
inline char ProcessState(pid_t id) {
  std::ifstream file("/proc/" + std::to_string(id) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(')');
  return name_end == std::string::npos || name_end + 2 >= text.size() ? '\0' : text[name_end + 2];
}

/// A copy of the test, made while it has one thread, that does something and ends; killed at the end of
/// the scope if it is still there.
class ForkedChild {
 public:
  /// Runs in the child; returns its exit status. It tells the parent things, one byte each.
  class Voice {
   public:
    explicit Voice(int pipe) : pipe_(pipe) {}
    void Say(char what) const {
      if (::write(pipe_, &what, 1) != 1) ::_exit(99);
    }

   private:
    int pipe_;
  };

  template <typename Act>
  explicit ForkedChild(Act&& act) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
    id_ = ::fork();
    if (id_ < 0) throw std::runtime_error("cannot fork");
    if (id_ == 0) {
      ::close(ends[0]);
      ::_exit(std::forward<Act>(act)(Voice(ends[1])));
    }
    ::close(ends[1]);
    pipe_ = ends[0];
  }
  ~ForkedChild() {
    if (!ended_) Kill();
    ::close(pipe_);
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  pid_t id() const { return id_; }

  /// The next thing that the child says; 0 when it ends without a word or says nothing for long.
  char Hear() {
    pollfd watched{pipe_, POLLIN, 0};
    char what = 0;
    return ::poll(&watched, 1, 30'000) == 1 && ::read(pipe_, &what, 1) == 1 ? what : '\0';
  }

  /// Whether it has nothing to do but wait for something: after the last thing that it said, for the
  /// next that it does.
  bool Sleeps() const {
    return WaitFor([this] { return ProcessState(id_) == 'S'; });
  }

  void Kill() {
    ::kill(id_, SIGKILL);
    Join();
  }

  /// Its exit status, or the signal that killed it as a negative number.
  int Join() {
    int status = 0;
    ended_ = true;
    if (::waitpid(id_, &status, 0) != id_) throw std::runtime_error("nobody to wait for");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t id_ = -1;
  int pipe_ = -1;
  bool ended_ = false;
};

}  // namespace tolm::test
