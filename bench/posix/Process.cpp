#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "posix/Copy.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

// A signal that comes just before the wait does not end that.
constexpr int kLookAtSignalMs = 200;
constexpr int kHighestPriority = -20;
constexpr char kRuntimeVariable[] = "XDG_RUNTIME_DIR";

volatile std::sig_atomic_t g_signal = 0;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

double KiBOf(const std::string& what) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kib = 0;
    if (word == what && status >> kib) return kib;
  }
  throw std::runtime_error("the system does not say " + what);
}

double Milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

}  // namespace

Child::Child(const std::string& program, const std::vector<std::string>& arguments) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) Fail("no socket for a child");
  channel_ = std::make_unique<Channel>(ends[0]);
  std::vector<std::string> texts = arguments;
  texts.insert(texts.begin(), program);
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  const pid_t parent = ::getpid();
  const pid_t made = ::fork();
  process_ = made;
  if (made == 0) {
    EndWith(parent);
    // The descriptor must be open in the new program, wherever the pair happened to be.
    if (ends[1] == kChildDescriptor) ::fcntl(ends[1], F_SETFD, 0);
    if (ends[1] != kChildDescriptor) ::dup2(ends[1], kChildDescriptor);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  if (made < 0) Fail("no process for a child");
}

Child::~Child() {
  Kill(static_cast<pid_t>(process_));
}

void Child::AwaitWord(int time_out_seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(time_out_seconds);
  for (;;) {
    pollfd watched{static_cast<int>(channel_->descriptor()), POLLIN, 0};
    const int ready = ::poll(&watched, 1, kLookAtSignalMs);
    if (g_signal != 0) throw std::runtime_error("interrupted");
    if (ready < 0 && errno != EINTR) Fail("waiting for a measurement failed");
    if (ready > 0) return;
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("not finished after " + std::to_string(time_out_seconds) + " s");
    }
  }
}

std::intptr_t ParentDescriptor() {
  return kChildDescriptor;
}

// Systems that share the processor out by session first have a second number for that.
bool RaisePriority() {
  if (::setpriority(PRIO_PROCESS, 0, kHighestPriority) != 0) return false;
  ::setsid();
  std::ofstream("/proc/self/autogroup") << kHighestPriority;
  return true;
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

std::string Load() {
  std::ifstream file("/proc/loadavg");
  std::string load;
  std::getline(file, load);
  return load;
}

double ProcessorMilliseconds() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) Fail("the system does not tell the processor's time");
  return Milliseconds(usage.ru_utime) + Milliseconds(usage.ru_stime);
}

double PeakKiB() {
  return KiBOf("VmHWM:");
}

double ForgetPeak() {
  std::ofstream file("/proc/self/clear_refs");
  file << 5;
  if (!file.flush()) throw std::runtime_error("the system does not forget the peak");
  return KiBOf("VmRSS:");
}

std::vector<fs::path> FilesToRunElsewhere() {
  return {ThisProgram()};
}

RuntimeFolder::RuntimeFolder() {
  std::string path = (fs::temp_directory_path() / "tolm-bench-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) Fail("no folder for the endpoints");
  path_ = path;
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
