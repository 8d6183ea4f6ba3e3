#include "os/HiddenProcess.h"

#include <optional>

#include "../common/CommandLine.h"
#include "Job.h"
#include "RunningExecutable.h"
#include "WideText.h"

namespace os {
namespace {

void EndProcessesOf(const std::wstring& executable) {
  for (const Handle& process : ProcessesRunning(executable, PROCESS_TERMINATE)) {
    if (::GetProcessId(process.get()) != ::GetCurrentProcessId()) {
      ::TerminateProcess(process.get(), kKilledStatus);
    }
  }
}

}  // namespace

StartedProcess StartHidden(const std::string& command_line) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  // With none for stdin and the others, which the system would copy from this process all the same: whoever
  // reads this one's output would wait for the end of the new one.
  startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_USESTDHANDLES;
  startup.wShowWindow = SW_HIDE;
  PROCESS_INFORMATION process{};
  std::wstring wide = Widen(command_line);  // written to by the call
  if (!::CreateProcessW(nullptr, wide.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &process)) {
    return {false, 0, static_cast<int>(::GetLastError())};
  }
  // Its handles stay open on purpose: for as long as this process lives, the number that it tells means that
  // program and no later one.
  return {true, static_cast<long>(process.dwProcessId), 0};
}

void RunRemovalCommand(const std::string& command) {
  const std::optional<std::string> path = ParseRemovalCommand(command);
  if (!path) return;
  ::WinExec(command.c_str(), SW_HIDE);
  // Newer systems are without the command, and not every one of that name knows how to delete: nobody is
  // told. What it does is done here as well; who comes second finds nothing.
  EndProcessesOf(FromUtf8(*path));
}

}  // namespace os
