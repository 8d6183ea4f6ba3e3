#include "os/ChildProcess.h"

#include <algorithm>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "Job.h"
#include "os/ExecutableFault.h"
#include "os/HiddenProcess.h"
#include "os/ThreadName.h"

namespace os {
namespace {

struct Pipe {
  Handle read;
  Handle write;
};

/// What of our handles a child gets: those that are named here, although others may be inheritable.
class InheritedHandles {
 public:
  explicit InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    memory_.resize(size);
    is_good_ = ::InitializeProcThreadAttributeList(list(), 1, 0, &size) != FALSE;
    is_made_ = is_good_;
    is_good_ =
        is_good_ && ::UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                                handles_.size() * sizeof(HANDLE), nullptr, nullptr) != FALSE;
  }
  ~InheritedHandles() {
    if (is_made_) ::DeleteProcThreadAttributeList(list());
  }
  InheritedHandles(const InheritedHandles&) = delete;
  InheritedHandles& operator=(const InheritedHandles&) = delete;

  bool is_good() const { return is_good_; }
  LPPROC_THREAD_ATTRIBUTE_LIST list() {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
  }

 private:
  std::vector<HANDLE> handles_;
  std::vector<char> memory_;
  bool is_made_ = false;
  bool is_good_ = false;
};

/// The caller's environment with what is added, as the system takes it: sorted, names compared without
/// case.
std::wstring EnvironmentBlock(const std::map<std::string, std::string>& added) {
  struct WithoutCase {
    bool operator()(const std::wstring& a, const std::wstring& b) const {
      return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    }
  };
  std::map<std::wstring, std::wstring, WithoutCase> variables;
  wchar_t* const own = ::GetEnvironmentStringsW();
  for (const wchar_t* entry = own; entry != nullptr && *entry != L'\0';) {
    const std::wstring text = entry;
    // The names of the folders of the drives begin with an equals sign.
    const std::size_t equals = text.find(L'=', 1);
    if (equals != std::wstring::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
    entry += text.size() + 1;
  }
  if (own != nullptr) ::FreeEnvironmentStringsW(own);
  for (const auto& [name, value] : added) variables[Widen(name)] = Widen(value);

  std::wstring block;
  for (const auto& [name, value] : variables) block += name + L"=" + value + L'\0';
  return block + L'\0';
}

bool IsPassable(const ProcessRequest& request) {
  const auto whole = [](const std::string& text) { return text.find('\0') == std::string::npos; };
  const auto variable = [&](const auto& pair) {
    return !pair.first.empty() && pair.first.find('=') == std::string::npos && whole(pair.first) &&
           whole(pair.second);
  };
  return !request.program.empty() && whole(request.program) && whole(request.working_folder) &&
         std::all_of(request.arguments.begin(), request.arguments.end(), whole) &&
         std::all_of(request.environment.begin(), request.environment.end(), variable);
}

struct Spawned {
  Handle process;
  Handle job;
  Handle output;  ///< none when nobody wants it
  DWORD id = 0;
};

bool Spawn(const ProcessRequest& request, Spawned& spawned, std::string& why) {
  const std::string doing = "cannot start " + request.program;
  if (!IsPassable(request)) {
    why = doing + ": its name, an argument or a variable is not a possible one";
    return false;
  }
  const auto fail = [&why](const std::string& text, DWORD error) {
    why = SystemMessage(text, error);
    return false;
  };
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  const Handle nothing(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     &inheritable, OPEN_EXISTING, 0, nullptr));
  if (!nothing) return fail(doing, ::GetLastError());
  Pipe output;
  if (request.on_output) {
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!::CreatePipe(&read, &write, &inheritable, 0)) return fail(doing, ::GetLastError());
    output.read = Handle(read);
    output.write = Handle(write);
    ::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  }
  std::vector<HANDLE> handed{nothing.get()};
  if (output.write) handed.push_back(output.write.get());
  InheritedHandles inherited(handed);
  if (!inherited.is_good()) return fail(doing, ::GetLastError());

  spawned.job = MakeJob();
  if (!spawned.job) return fail(doing + ": no job for its processes", ::GetLastError());

  STARTUPINFOEXW start{};
  start.StartupInfo.cb = sizeof start;
  start.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  start.StartupInfo.wShowWindow = SW_HIDE;
  start.StartupInfo.hStdInput = nothing.get();
  start.StartupInfo.hStdOutput = output.write ? output.write.get() : nothing.get();
  start.StartupInfo.hStdError = start.StartupInfo.hStdOutput;
  start.lpAttributeList = inherited.list();

  std::vector<std::string> words{request.program};
  words.insert(words.end(), request.arguments.begin(), request.arguments.end());
  std::wstring command_line = Widen(JoinCommandLine(words));
  std::wstring environment = EnvironmentBlock(request.environment);
  const std::wstring folder = Widen(request.working_folder);
  // Suspended: not one instruction runs, and no further process begins, outside of the job.
  constexpr DWORD kFlags = CREATE_NO_WINDOW | CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT |
                           CREATE_NEW_PROCESS_GROUP | EXTENDED_STARTUPINFO_PRESENT;
  PROCESS_INFORMATION made{};
  if (!::CreateProcessW(Widen(request.program).c_str(), command_line.data(), nullptr, nullptr, TRUE, kFlags,
                        environment.data(), folder.empty() ? nullptr : folder.c_str(), &start.StartupInfo,
                        &made)) {
    const DWORD error = ::GetLastError();
    const std::string fault = error == ERROR_DIRECTORY
                                  ? "cannot go to the folder " + request.working_folder
                                  : ExecutableFault(request.program, static_cast<int>(error));
    fail(doing, error);
    if (!fault.empty()) why += ": " + fault;
    return false;
  }
  spawned.process = Handle(made.hProcess);
  spawned.id = made.dwProcessId;
  const Handle thread(made.hThread);
  if (!::AssignProcessToJobObject(spawned.job.get(), made.hProcess) ||
      ::ResumeThread(made.hThread) == static_cast<DWORD>(-1)) {
    const DWORD error = ::GetLastError();
    ::TerminateProcess(made.hProcess, 1);
    return fail(doing + ": it cannot be tied to this process", error);
  }
  spawned.output = std::move(output.read);
  return true;
}

/// The output is read on one thread and the end awaited on another: an anonymous pipe cannot be waited for
/// together with something else.
class WindowsChildProcess final : public ChildProcess {
 public:
  WindowsChildProcess(ProcessRequest request, Spawned spawned)
      : request_(std::move(request)),
        id_(spawned.id),
        process_(std::move(spawned.process)),
        job_(std::move(spawned.job)),
        output_(std::move(spawned.output)) {}

  ~WindowsChildProcess() override {
    WindowsChildProcess::KillTree();  // whoever holds the pipe is in the job as well
    if (ending_.joinable()) ending_.join();
    if (reading_.joinable()) reading_.join();
  }

  /// Throws what the system says when it has no room for a thread.
  void Begin() {
    if (output_) reading_ = std::thread([this] { ReadOutput(); });
    ending_ = std::thread([this] { AwaitEnd(); });
  }

  long id() const override { return static_cast<long>(id_); }
  bool HasEnded() const override { return ::WaitForSingleObject(process_.get(), 0) == WAIT_OBJECT_0; }

  void AskToEnd() override {
    const Handle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, StopEventName(id_).c_str()));
    // A program that does not listen is killed when its time is over, as one that ignores the request.
    if (event) ::SetEvent(event.get());
  }

  void KillTree() override { EndJob(job_); }

  bool WaitEnd(std::chrono::milliseconds timeout) override {
    constexpr long long kLongest = INFINITE - 1;
    const auto wait = static_cast<DWORD>(std::clamp<long long>(timeout.count(), 0, kLongest));
    return ::WaitForSingleObject(process_.get(), wait) == WAIT_OBJECT_0;
  }

 private:
  void ReadOutput() {
    SetThreadName("tolm-child");
    std::vector<char> buffer(64 * 1024);
    DWORD count = 0;
    while (::ReadFile(output_.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr)) {
      if (count > 0) Call([&] { request_.on_output({buffer.data(), count}); });
    }
    Call([this] { request_.on_output({}); });
  }

  void AwaitEnd() {
    SetThreadName("tolm-child-end");
    ::WaitForSingleObject(process_.get(), INFINITE);
    DWORD status = 0;
    ::GetExitCodeProcess(process_.get(), &status);
    if (request_.on_end) Call([&] { request_.on_end({static_cast<int>(status), 0}); });
  }

  /// Handlers are called one at a time. One's exception is its own loss; the child is watched on.
  template <typename Handler>
  void Call(Handler&& handler) noexcept {
    const std::lock_guard lock(calling_);
    try {
      handler();
    } catch (...) {
    }
  }

  const ProcessRequest request_;
  const DWORD id_;
  const Handle process_;
  const Handle job_;
  const Handle output_;
  std::mutex calling_;
  std::thread reading_;
  std::thread ending_;
};

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(ProcessRequest request, std::string& why) {
  Spawned spawned;
  if (!Spawn(request, spawned, why)) return nullptr;
  const std::string program = request.program;
  auto child = std::make_unique<WindowsChildProcess>(std::move(request), std::move(spawned));
  try {
    child->Begin();
  } catch (const std::system_error& error) {
    why = "cannot watch " + program + ": " + error.code().message();
    return nullptr;
  }
  return child;
}

// Jobs nest: what a supervisor below this one starts is in the jobs of both, whoever its parent is, and is
// killed with either. So there are neither orphans to adopt nor strays.
void AdoptOrphans() {}
void KillStrayDescendants() {}
void EndWithParent() {}

}  // namespace os
