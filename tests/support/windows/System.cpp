#include "support/System.h"

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include <windows.h>

#include <tlhelp32.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "support/windows/OwnedHandle.h"

namespace tolm::test {

namespace fs = std::filesystem;

namespace {

OwnedHandle OpenForRights(ProcessId id, DWORD rights) {
  return OwnedHandle(::OpenProcess(rights, FALSE, static_cast<DWORD>(id)));
}

// No documented function stops a whole process.
void CallOnProcess(const char* function, ProcessId id) {
  using Call = LONG(WINAPI*)(HANDLE);
  const FARPROC found = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), function);
  const OwnedHandle process = OpenForRights(id, PROCESS_SUSPEND_RESUME);
  if (found != nullptr && process) reinterpret_cast<Call>(reinterpret_cast<void*>(found))(process.get());
}

fs::path ExecutableOf(const OwnedHandle& process) {
  wchar_t path[4096];
  DWORD length = 4096;
  return ::QueryFullProcessImageNameW(process.get(), 0, path, &length) ? fs::path(path) : fs::path();
}

bool LiesBelow(const fs::path& path, const fs::path& folder) {
  const std::wstring whole = path.native();
  const std::wstring front = fs::path(folder).make_preferred().native() + L"\\";
  return whole.size() > front.size() &&
         ::CompareStringOrdinal(whole.c_str(), static_cast<int>(front.size()), front.c_str(),
                                static_cast<int>(front.size()), TRUE) == CSTR_EQUAL;
}

}  // namespace

ProcessId OwnProcessId() {
  return static_cast<ProcessId>(::GetCurrentProcessId());
}

bool IsAlive(ProcessId id) {
  const OwnedHandle process = OpenForRights(id, SYNCHRONIZE);
  return process && ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

void KillProcess(ProcessId id) {
  ::TerminateProcess(OpenForRights(id, PROCESS_TERMINATE).get(), kKilledStatus);
}

void AskProcessToEnd(ProcessId id) {
  const std::wstring name = L"Local\\tolm-stop-" + std::to_wstring(id);
  const OwnedHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str()));
  if (event) ::SetEvent(event.get());
}

void FreezeProcess(ProcessId id) {
  CallOnProcess("NtSuspendProcess", id);
}

void ThawProcess(ProcessId id) {
  CallOnProcess("NtResumeProcess", id);
}

std::map<ProcessId, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<ProcessId, fs::path> processes;
  const OwnedHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return processes;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
       more = ::Process32NextW(snapshot.get(), &entry)) {
    const auto id = static_cast<ProcessId>(entry.th32ProcessID);
    const OwnedHandle process = OpenForRights(id, PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE);
    if (!process || ::WaitForSingleObject(process.get(), 0) != WAIT_TIMEOUT) continue;
    fs::path program = ExecutableOf(process);
    if (LiesBelow(program, folder)) processes[id] = std::move(program);
  }
  return processes;
}

fs::path ThisProgram() {
  wchar_t path[4096];
  const DWORD length = ::GetModuleFileNameW(nullptr, path, 4096);
  return fs::path(std::wstring(path, length));
}

fs::path ProgramFile(const fs::path& path) {
  fs::path file = path;
  if (file.extension() != ".exe") file += ".exe";
  return file;
}

fs::path MakeTempFolder() {
  const fs::path temporary = fs::temp_directory_path();
  for (unsigned i = 0; i < 1000; ++i) {
    LARGE_INTEGER now{};
    ::QueryPerformanceCounter(&now);
    const std::string name =
        "tolm-" + std::to_string(OwnProcessId()) + "-" + std::to_string(now.QuadPart + i);
    std::error_code taken;
    if (fs::create_directory(temporary / name, taken)) return temporary / name;
  }
  throw std::runtime_error("cannot make a folder in " + temporary.string());
}

// Both the runtime's copy of the environment and the system's.
void SetVariable(const char* name, const std::optional<std::string>& value) {
  ::_putenv_s(name, value ? value->c_str() : "");
}

int FreePort() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
  });
  const SOCKET probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const bool bound = ::bind(probe, generic, size) == 0 && ::getsockname(probe, generic, &size) == 0;
  ::closesocket(probe);
  if (!bound) throw std::runtime_error("no free port");
  return ::ntohs(address.sin_port);
}

void Nap() {
  ::WaitForSingleObject(::GetCurrentThread(), 1);
}

void WaitForever() {
  for (;;) ::WaitForSingleObject(::GetCurrentThread(), INFINITE);
}

}  // namespace tolm::test
