// A process cannot become another program here. So the one that was started waits for its copy, which is in
// a job with everything that comes of it, and hands on to it what it is asked:
//
//   Ctrl-C, Local\tolm-stop-<id> ──► this process ──► Local\<name of the folder>-stop ──► its copy

#include "Entry.h"

#include <windows.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "os/HiddenProcess.h"
#include "os/NamedEvent.h"
#include "os/StopSignal.h"
#include "os/Utf8Path.h"

namespace tour {

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;

// For the system to let go of the programs that have ended: they cannot be removed before.
constexpr auto kPatience = 10s;
constexpr auto kLookAgain = 5ms;

struct CloseHandles {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, CloseHandles>;

std::runtime_error Failure(const std::string& doing) {
  return std::runtime_error(doing + ": " +
                            std::system_category().message(static_cast<int>(::GetLastError())));
}

/// Joins the event that asks the copy to end; whoever comes first makes it.
std::shared_ptr<os::NamedEvent> StopEvent(const fs::path& folder) {
  int error = 0;
  std::shared_ptr<os::NamedEvent> event =
      os::NamedEvent::Create("Local\\" + folder.filename().string() + "-stop", error);
  if (!event) throw std::system_error(error, std::system_category(), "no event to end the tour with");
  return event;
}

/// Its processes are killed when its last handle is closed, that is also when this process is killed.
OwnedHandle MakeJob() {
  OwnedHandle job(::CreateJobObjectW(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (!job ||
      !::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
    throw Failure("no job for the tour's processes");
  }
  return job;
}

OwnedHandle StartIn(const OwnedHandle& job, const fs::path& program,
                    const std::vector<std::string>& arguments) {
  std::vector<std::string> words{program.string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::wstring command_line = os::Utf8Path(os::JoinCommandLine(words)).native();
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION made{};
  // Suspended: nothing begins outside of the job.
  if (!::CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, nullptr, &start, &made)) {
    throw Failure("cannot start " + program.string());
  }
  OwnedHandle process(made.hProcess);
  const OwnedHandle thread(made.hThread);
  if (!::AssignProcessToJobObject(job.get(), process.get()) ||
      ::ResumeThread(thread.get()) == static_cast<DWORD>(-1)) {
    const auto failure = Failure("cannot tie " + program.string() + " to this process");
    ::TerminateProcess(process.get(), 1);
    throw failure;
  }
  return process;
}

void Remove(const fs::path& folder) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (std::error_code error; fs::remove_all(folder, error), fs::exists(folder);) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("cannot remove " + folder.string() + ": " + error.message());
    }
    std::this_thread::sleep_for(kLookAgain);
  }
}

BOOL WINAPI LeaveItToTheOtherProcess(DWORD event) {
  // After these the system ends the process as soon as this returns, and after a few seconds anyway.
  if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
    ::Sleep(INFINITE);
  }
  return TRUE;
}

}  // namespace

int Enter(const fs::path& folder, const fs::path& program, const std::vector<std::string>& arguments) {
  // It waits for the copy if it is set before that listens.
  const auto stop = StopEvent(folder);
  os::OnStopSignal([stop] { stop->Set(); });
  DWORD status = 0;
  {
    const OwnedHandle job = MakeJob();
    const OwnedHandle copy = StartIn(job, program, arguments);
    ::WaitForSingleObject(copy.get(), INFINITE);
    ::GetExitCodeProcess(copy.get(), &status);
  }
  Remove(folder);
  return static_cast<int>(status);
}

// The console tells both processes of Ctrl-C; this one hears of it once, from the other.
void OnInterrupt(const fs::path& folder, std::function<void()> asked) {
  ::SetConsoleCtrlHandler(LeaveItToTheOtherProcess, TRUE);
  std::thread([stop = StopEvent(folder), asked = std::move(asked)] {
    while (stop->Wait(-1)) asked();
  }).detach();
}

}  // namespace tour
