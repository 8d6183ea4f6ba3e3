#include "posix/Copy.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "Channel.h"

namespace bench {
namespace {

constexpr int kLookMs = 200;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string ReadToEnd(int descriptor, int time_out_seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(time_out_seconds);
  std::string text;
  std::array<char, 4096> buffer;
  for (;;) {
    pollfd watched{descriptor, POLLIN, 0};
    const int ready = ::poll(&watched, 1, kLookMs);
    if (ready < 0 && errno != EINTR) Fail("waiting for a measurement failed");
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("not finished after " + std::to_string(time_out_seconds) + " s");
    }
    if (ready <= 0) continue;
    const ssize_t got = ::read(descriptor, buffer.data(), buffer.size());
    if (got < 0) Fail("reading a measurement failed");
    if (got == 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

// In the copy: the first character says how it went.
[[noreturn]] void RunAndReport(const std::function<std::string()>& work, int descriptor) {
  std::string text;
  try {
    text = '+' + work();
  } catch (const std::exception& error) {
    text = '-' + std::string(error.what());
  }
  Channel(descriptor).Write(text.data(), text.size());
  // Without destructors: the frame's threads still run, and its end is not what is measured.
  ::_exit(0);
}

}  // namespace

void EndWith(pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
}

void Kill(pid_t process) {
  ::kill(process, SIGKILL);
  while (::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
  }
}

Copy::Copy(const std::function<void()>& work) {
  std::fflush(nullptr);
  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ < 0) Fail("no process for a copy");
  if (process_ > 0) return;
  EndWith(parent);
  try {
    work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "frame_bench: %s\n", error.what());
    ::_exit(1);
  }
  ::_exit(0);
}

Copy::~Copy() {
  Kill(process_);
}

std::string RunApart(const std::function<std::string()>& work, int time_out_seconds) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) Fail("no pipe for a measurement");
  std::fflush(nullptr);
  const pid_t parent = ::getpid();
  const pid_t process = ::fork();
  if (process == 0) {
    EndWith(parent);
    ::close(ends[0]);
    RunAndReport(work, ends[1]);
  }
  ::close(ends[1]);
  const Channel reading(ends[0]);
  if (process < 0) Fail("no process for a measurement");
  std::string text;
  try {
    text = ReadToEnd(ends[0], time_out_seconds);
  } catch (...) {
    Kill(process);
    throw;
  }
  Kill(process);
  if (text.empty()) throw std::runtime_error("the measuring process ended too soon");
  if (text.front() != '+') throw std::runtime_error(text.substr(1));
  return text.substr(1);
}

}  // namespace bench
