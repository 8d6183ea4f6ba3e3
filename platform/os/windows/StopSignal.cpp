#include "os/StopSignal.h"

#include <thread>
#include <utility>

#include "Job.h"

namespace os {
namespace {

HANDLE g_stop = nullptr;  // set once, before the console may call

// The system calls it on a thread that it makes for that; the listener's thread does the rest.
BOOL WINAPI OnConsoleEvent(DWORD event) {
  ::SetEvent(g_stop);
  // After these the system ends the process as soon as this returns, and after a few seconds anyway.
  if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
    ::Sleep(INFINITE);
  }
  return TRUE;
}

}  // namespace

void OnStopSignal(std::function<void()> asked) {
  // Auto-reset, each signal one call; under the name by which a supervisor asks.
  g_stop = ::CreateEventW(nullptr, FALSE, FALSE, StopEventName(::GetCurrentProcessId()).c_str());
  if (g_stop == nullptr) g_stop = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);  // the console at least
  std::thread([asked = std::move(asked)] {
    while (::WaitForSingleObject(g_stop, INFINITE) == WAIT_OBJECT_0) asked();
  }).detach();
  // A process in a group of its own is started with Ctrl-C switched off.
  ::SetConsoleCtrlHandler(nullptr, FALSE);
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

}  // namespace os
