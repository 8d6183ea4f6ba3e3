#include "os/ChildProcess.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "Job.h"
#include "Spawn.h"
#include "os/ThreadName.h"

namespace os {
namespace {

std::atomic<bool> g_adopts_orphans{false};

bool IsSignalled(const Handle& object) {
  return ::WaitForSingleObject(object.get(), 0) == WAIT_OBJECT_0;
}

class WindowsChildProcess final : public ChildProcess {
 public:
  WindowsChildProcess(ProcessRequest request, SpawnedProcess spawned, Handle closing)
      : request_(std::move(request)),
        id_(spawned.id),
        process_(std::move(spawned.process)),
        job_(std::move(spawned.job)),
        closing_(std::move(closing)),
        output_(std::move(spawned.output)) {}

  ~WindowsChildProcess() override {
    WindowsChildProcess::KillTree();
    ::SetEvent(closing_.get());
    if (thread_.joinable()) thread_.join();
  }

  /// Throws what the system says when it has no room for a thread.
  void Begin() {
    thread_ = std::thread([this] { Watch(); });
  }

  long id() const override { return static_cast<long>(id_); }
  bool HasEnded() const override { return IsSignalled(process_); }

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
  void Watch() {
    SetThreadName("tolm-child");
    if (output_.is_open()) output_.Begin();
    bool running = true;
    while (running || output_.is_open()) {
      // Whoever got hold of the pipe without being in the job is not waited for.
      const HANDLE watched[] = {running ? process_.get() : closing_.get(),
                                output_.is_open() ? output_.ready() : nullptr};
      ::WaitForMultipleObjects(output_.is_open() ? 2 : 1, watched, FALSE, INFINITE);
      TakeOutput(1);
      if (running && HasEnded()) {
        running = false;
        TakeEnd();
      } else if (!running && IsSignalled(closing_) && output_.is_open()) {
        TakeOutput(kRestOfOutput);
        EndOutput();
      }
    }
  }

  void TakeEnd() {
    DWORD status = 0;
    ::GetExitCodeProcess(process_.get(), &status);
    if (g_adopts_orphans) EndJob(job_);
    // What it said last comes before the news of its end.
    TakeOutput(kRestOfOutput);
    if (request_.on_end) TellEnd({static_cast<int>(status), 0});
  }

  /// An end that nobody hears of would be waited for for ever, so a handler that lacks memory is asked again.
  void TellEnd(const ProcessEnd& end) noexcept {
    constexpr DWORD kPauseMs = 20;
    for (;;) {
      try {
        request_.on_end(end);
        return;
      } catch (const std::bad_alloc&) {
        if (::WaitForSingleObject(closing_.get(), kPauseMs) == WAIT_OBJECT_0) return;
      } catch (...) {
        return;
      }
    }
  }

  /// Takes what is there at the moment, at most `pieces` times.
  void TakeOutput(int pieces) {
    for (; output_.is_open() && pieces > 0; --pieces) {
      std::string_view piece;
      const OutputPipe::Came came = output_.Take(piece);
      if (came == OutputPipe::Came::kNothing) return;
      if (came == OutputPipe::Came::kEnd) return EndOutput();
      // A program may write nothing at all.
      if (!piece.empty()) Call([&] { request_.on_output(piece); });
    }
  }

  void EndOutput() {
    output_.Close();
    if (request_.on_output) Call([this] { request_.on_output({}); });
  }

  /// A handler's exception is the handler's loss; the child is watched on.
  template <typename Handler>
  static void Call(Handler&& handler) noexcept {
    try {
      handler();
    } catch (...) {
    }
  }

  // More than the pipe holds: a writer that does not stop must not keep the reader.
  static constexpr int kRestOfOutput = 32;

  const ProcessRequest request_;
  const DWORD id_;
  const Handle process_;
  const Handle job_;
  const Handle closing_;
  OutputPipe output_;  // the thread's
  std::thread thread_;
};

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(ProcessRequest request, std::string& why) {
  Handle closing(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!closing) {
    why = SystemMessage("cannot start " + request.program, ::GetLastError());
    return nullptr;
  }
  const std::string program = request.program;
  try {
    SpawnedProcess spawned;
    if (!Spawn(request, spawned, why)) return nullptr;
    auto child =
        std::make_unique<WindowsChildProcess>(std::move(request), std::move(spawned), std::move(closing));
    child->Begin();
    return child;
  } catch (const std::system_error& error) {
    why = "cannot watch " + program + ": " + error.code().message();  // there is no room for a thread
    return nullptr;
  } catch (const std::bad_alloc&) {
    why = "memory is short";  // needs none of its own; a job that nobody holds ends its processes
    return nullptr;
  }
}

// A process whose parent has ended stays in the parent's job, and needs nobody to collect it.
void AdoptOrphans() {
  g_adopts_orphans = true;
}

// Jobs nest: what a supervisor below this one starts is in the jobs of both, whoever its parent is. It ends
// with either, and nothing gets out of a job: there are no strays.
void KillStrayDescendants() {}

// The parent's job sees to it.
void EndWithParent() {}

}  // namespace os
