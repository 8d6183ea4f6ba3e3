#include "Process.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr DWORD kPipeBytes = 64u << 10;
constexpr DWORD kLookMs = 200;
constexpr DWORD kLongestEndMs = 10'000;
// As on other systems: endpoints have it in their names.
constexpr wchar_t kRuntimeVariable[] = L"XDG_RUNTIME_DIR";

std::atomic<bool> g_asked_to_end{false};

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

HANDLE HandleOf(std::intptr_t descriptor) {
  return reinterpret_cast<HANDLE>(descriptor);
}

/// Children end with this process.
HANDLE OwnJob() {
  static const HANDLE job = [] {
    const HANDLE made = ::CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (made == nullptr ||
        !::SetInformationJobObject(made, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
      Fail("no job for the children");
    }
    return made;
  }();
  return job;
}

std::wstring Wide(const std::string& text) {
  return fs::path(text).native();
}

/// A pipe for bytes that goes both ways, and whose every read and write waits.
struct Pipe {
  Pipe() {
    static int made = 0;
    const std::wstring name = L"\\\\.\\pipe\\tolm-bench-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                              std::to_wstring(++made);
    own = ::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE,
                             PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
                             kPipeBytes, kPipeBytes, 0, nullptr);
    if (own == INVALID_HANDLE_VALUE) Fail("no pipe for a child");
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    childs =
        ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &inheritable, OPEN_EXISTING, 0, nullptr);
    if (childs == INVALID_HANDLE_VALUE) Fail("no pipe to a child");
  }

  HANDLE own = nullptr;
  HANDLE childs = nullptr;
};

// None of the words ends in a backslash or has a quotation mark in it.
std::wstring CommandLine(const std::string& program, const std::vector<std::string>& arguments) {
  std::wstring line = L'"' + Wide(program) + L'"';
  for (const std::string& argument : arguments) line += L" \"" + Wide(argument) + L'"';
  return line;
}

BOOL WINAPI OnConsoleEvent(DWORD /*event*/) {
  g_asked_to_end = true;
  return TRUE;
}

}  // namespace

Child::Child(const std::string& program, const std::vector<std::string>& arguments) {
  const Pipe pipe;
  channel_ = std::make_unique<Channel>(reinterpret_cast<std::intptr_t>(pipe.own));
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = pipe.childs;
  start.hStdOutput = ::GetStdHandle(STD_OUTPUT_HANDLE);
  start.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  for (const HANDLE shared : {start.hStdOutput, start.hStdError}) {
    ::SetHandleInformation(shared, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  }
  std::wstring line = CommandLine(program, arguments);
  PROCESS_INFORMATION made{};
  const BOOL started = ::CreateProcessW(Wide(program).c_str(), line.data(), nullptr, nullptr, TRUE,
                                        CREATE_SUSPENDED, nullptr, nullptr, &start, &made);
  const DWORD error = ::GetLastError();
  ::CloseHandle(pipe.childs);
  ::SetLastError(error);
  if (!started) Fail("no process for a child");
  process_ = reinterpret_cast<std::intptr_t>(made.hProcess);
  const bool tied = ::AssignProcessToJobObject(OwnJob(), made.hProcess) != FALSE;
  if (!tied) ::TerminateProcess(made.hProcess, 1);
  ::ResumeThread(made.hThread);
  ::CloseHandle(made.hThread);
  if (!tied) throw std::runtime_error("a child cannot be tied to this process");
}

Child::~Child() {
  ::TerminateProcess(HandleOf(process_), 1);
  ::WaitForSingleObject(HandleOf(process_), kLongestEndMs);
  ::CloseHandle(HandleOf(process_));
}

void Child::AwaitWord(int time_out_seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(time_out_seconds);
  for (;;) {
    const bool ended = ::WaitForSingleObject(HandleOf(process_), kLookMs) == WAIT_OBJECT_0;
    if (g_asked_to_end) throw std::runtime_error("interrupted");
    DWORD available = 0;
    ::PeekNamedPipe(HandleOf(channel_->descriptor()), nullptr, 0, nullptr, &available, nullptr);
    if (ended || available > 0) return;
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("not finished after " + std::to_string(time_out_seconds) + " s");
    }
  }
}

std::intptr_t ParentDescriptor() {
  return reinterpret_cast<std::intptr_t>(::GetStdHandle(STD_INPUT_HANDLE));
}

// A class of priority above the usual one would keep the system's own threads from running.
bool RaisePriority() {
  return false;
}

bool MayRaisePriority() {
  return false;
}

void PinTo(int core) {
  if (!::SetProcessAffinityMask(::GetCurrentProcess(), DWORD_PTR{1} << core)) Fail("cannot stay on one core");
}

int LastCore() {
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  if (!::GetProcessAffinityMask(::GetCurrentProcess(), &own, &all)) {
    Fail("cannot read which cores are allowed");
  }
  return std::max(0, static_cast<int>(std::bit_width(own)) - 1);
}

std::string Load() {
  return {};
}

double ProcessorMilliseconds() {
  FILETIME unused{};
  FILETIME kernel{};
  FILETIME user{};
  if (!::GetProcessTimes(::GetCurrentProcess(), &unused, &unused, &kernel, &user)) {
    Fail("the system does not tell the processor's time");
  }
  // In steps of 100 ns.
  const auto milliseconds = [](const FILETIME& time) {
    return (static_cast<double>(time.dwHighDateTime) * 4294967296.0 +
            static_cast<double>(time.dwLowDateTime)) /
           1e4;
  };
  return milliseconds(kernel) + milliseconds(user);
}

double PeakKiB() {
  throw std::runtime_error("this system does not forget a peak");
}

double ForgetPeak() {
  throw std::runtime_error("this system does not forget a peak");
}

// Nothing of what is measured here starts an agent, and everything else is in a job.
void EndProcessesBelow(const fs::path& /*folder*/) {}

std::vector<fs::path> FilesToRunElsewhere() {
  return {ThisProgram(), ThisProgram().parent_path() / TOLM_BENCH_FRAME_FILE};
}

RuntimeFolder::RuntimeFolder()
    : path_(fs::temp_directory_path() / ("tolm-bench-" + std::to_string(::GetCurrentProcessId()))) {
  fs::remove_all(path_);  // of an earlier process that was killed
  fs::create_directory(path_);
  // The runtime's copy of the environment and the system's, which children get.
  if (::_wputenv_s(kRuntimeVariable, path_.c_str()) != 0) {
    throw std::runtime_error("no folder for the endpoints");
  }
}

RuntimeFolder::~RuntimeFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string RuntimeFolder::Path() {
  return fs::path(::_wgetenv(kRuntimeVariable)).string();
}

void EndInOrderOnSignals() {
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

}  // namespace bench
