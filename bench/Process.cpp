#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

namespace fs = std::filesystem;

// A signal that comes just before the wait does not end that.
constexpr int kLookAtSignalMs = 200;
constexpr auto kLongestEnd = std::chrono::seconds(2);
constexpr int kHighestPriority = -20;
constexpr char kRuntimeVariable[] = "XDG_RUNTIME_DIR";

volatile std::sig_atomic_t g_signal = 0;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// In a new child, which must not stay when `parent` has gone already.
void EndWith(pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
}

void Kill(pid_t process) {
  ::kill(process, SIGKILL);
  while (::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string ReadToEnd(int descriptor, int time_out_seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(time_out_seconds);
  std::string text;
  std::array<char, 4096> buffer;
  for (;;) {
    pollfd watched{descriptor, POLLIN, 0};
    const int ready = ::poll(&watched, 1, kLookAtSignalMs);
    if (g_signal != 0) throw std::runtime_error("interrupted");
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

// Systems that share the processor out by session first have a second number for that.
bool RaisePriority() {
  if (::setpriority(PRIO_PROCESS, 0, kHighestPriority) != 0) return false;
  ::setsid();
  std::ofstream("/proc/self/autogroup") << kHighestPriority;
  return true;
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

Child::Child(const std::vector<std::string>& arguments) : Child("/proc/self/exe", arguments) {}

Child::Child(const std::string& program, const std::vector<std::string>& arguments) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) Fail("no socket for a child");
  channel_ = std::make_unique<Channel>(ends[0]);
  std::vector<std::string> texts = arguments;
  texts.insert(texts.begin(), "frame_bench");
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ == 0) {
    EndWith(parent);
    // The descriptor must be open in the new program, wherever the pair happened to be.
    if (ends[1] == kChildDescriptor) ::fcntl(ends[1], F_SETFD, 0);
    if (ends[1] != kChildDescriptor) ::dup2(ends[1], kChildDescriptor);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  if (process_ < 0) Fail("no process for a child");
}

Child::~Child() {
  Kill(process_);
}

std::vector<double> Child::Do(Task task, std::size_t size, std::size_t count) {
  channel_->Send({task, static_cast<std::uint32_t>(size), count});
  return channel_->TakeAnswer();
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
    RaisePriority();
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

bool MayRaisePriority() {
  return RunApart([] { return std::string(RaisePriority() ? "yes" : "no"); }, 10) == "yes";
}

void PinTo(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(core), &cores);
  if (::sched_setaffinity(0, sizeof cores, &cores) != 0) Fail("cannot stay on one core");
}

int LastCore() {
  cpu_set_t cores;
  if (::sched_getaffinity(0, sizeof cores, &cores) != 0) Fail("cannot read which cores are allowed");
  int last = 0;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(static_cast<std::size_t>(core), &cores)) last = core;
  }
  return last;
}

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

RuntimeFolder::RuntimeFolder() : path_((fs::temp_directory_path() / "tolm-bench-XXXXXX").string()) {
  if (::mkdtemp(path_.data()) == nullptr) Fail("no folder for the endpoints");
  ::setenv(kRuntimeVariable, path_.c_str(), 1);
}

RuntimeFolder::~RuntimeFolder() {
  EndProcessesBelow(path_);
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string RuntimeFolder::Path() {
  return std::getenv(kRuntimeVariable);
}

void EndInOrderOnSignals() {
  struct sigaction action {};
  action.sa_handler = [](int number) { g_signal = number; };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(number, &action, nullptr);
}

}  // namespace bench
