#include <windows.h>

#include <stdexcept>
#include <utility>

#include "support/NativeChild.h"
#include "support/windows/OwnedHandle.h"

namespace tolm::test {
namespace {

std::wstring Wide(const std::string& utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end())).native();
}

// As the runtime of the child takes it apart again.
std::wstring Quoted(const std::wstring& word) {
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : word) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  return quoted.append(2 * backslashes, L'\\') + L'"';
}

/// Both ends; `inherited` is the one that children get.
struct Pipe {
  OwnedHandle read;
  OwnedHandle write;
};

Pipe MakePipe(bool child_reads) {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  if (!::CreatePipe(&read, &write, nullptr, 0)) throw std::runtime_error("no pipe");
  ::SetHandleInformation(child_reads ? read : write, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  return {OwnedHandle(read), OwnedHandle(write)};
}

/// Children end with this process.
HANDLE OwnJob() {
  static const HANDLE job = [] {
    const HANDLE made = ::CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    ::SetInformationJobObject(made, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return made;
  }();
  return job;
}

class WindowsChild final : public NativeChild {
 public:
  WindowsChild(const PROCESS_INFORMATION& process, OwnedHandle input, OwnedHandle output)
      : id_(process.dwProcessId),
        process_(process.hProcess),
        input_(std::move(input)),
        output_(std::move(output)) {
    ::CloseHandle(process.hThread);
  }

  ProcessId id() const override { return static_cast<ProcessId>(id_); }
  // Without a console of its own there is no Ctrl-C: programs hear of both in the same way.
  void Interrupt() override { AskProcessToEnd(id()); }

  void Write(const std::string& text) override {
    DWORD written = 0;
    ::WriteFile(input_.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  }
  void CloseInput() override { input_ = OwnedHandle(); }

  std::size_t Read(char* buffer, std::size_t size) override {
    DWORD count = 0;
    return ::ReadFile(output_.get(), buffer, static_cast<DWORD>(size), &count, nullptr) ? count : 0;
  }

  void WaitEnd() override { ::WaitForSingleObject(process_.get(), INFINITE); }

  // The handle keeps the id.
  Exit Collect() override {
    DWORD status = 0;
    ::GetExitCodeProcess(process_.get(), &status);
    return status == kKilledStatus ? kKilled : Exit{static_cast<int>(status), false};
  }

 private:
  const DWORD id_;
  const OwnedHandle process_;
  OwnedHandle input_;
  const OwnedHandle output_;
};

}  // namespace

std::unique_ptr<NativeChild> NativeChild::Start(std::vector<std::string> command) {
  std::wstring line;
  for (const std::string& word : command) line += (line.empty() ? L"" : L" ") + Quoted(Wide(word));
  Pipe input = MakePipe(true);
  Pipe output = MakePipe(false);
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = input.read.get();
  start.hStdOutput = output.write.get();
  start.hStdError = output.write.get();
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(std::filesystem::path(Wide(command.front())).make_preferred().c_str(), line.data(),
                        nullptr, nullptr, TRUE, CREATE_NO_WINDOW | CREATE_SUSPENDED, nullptr, nullptr, &start,
                        &process)) {
    throw std::runtime_error("cannot start " + command.front() + ": " + std::to_string(::GetLastError()));
  }
  ::AssignProcessToJobObject(OwnJob(), process.hProcess);
  ::ResumeThread(process.hThread);
  return std::make_unique<WindowsChild>(process, std::move(input.write), std::move(output.read));
}

}  // namespace tolm::test
