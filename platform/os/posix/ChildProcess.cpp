#include "os/ChildProcess.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "ProcessTable.h"
#include "ProcessTree.h"
#include "Spawn.h"
#include "os/Mutex.h"
#include "os/ThreadName.h"

namespace os {
namespace {

using Clock = std::chrono::steady_clock;

/// A child that has ended stays uncollected for as long as something of its tree may be left: so long its
/// number, which is its group's number too, cannot become another process's.
class PosixChildProcess final : public ChildProcess {
 public:
  PosixChildProcess(ProcessRequest request, Descriptor closing)
      : request_(std::move(request)), closing_(std::move(closing)) {}

  ~PosixChildProcess() override {
    if (root_.id <= 0) return;  // it never came to a process
    PosixChildProcess::KillTree();
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t told = ::write(closing_.get(), &one, sizeof one);
    if (thread_.joinable()) thread_.join();
    if (!collected_) CollectChild(root_.id);
  }

  /// Once, before all else. False with the reason in `why`; may throw as well.
  bool Begin(std::string& why) {
    SpawnedProcess spawned;
    if (!Spawn(request_, spawned, why)) return false;
    root_ = std::move(spawned.root);
    process_ = std::move(spawned.process);
    output_ = std::move(spawned.output);
    thread_ = std::thread([this] { Watch(); });
    return true;
  }

  long id() const override { return root_.id; }
  bool HasEnded() const override { return IsReadable(process_, 0); }
  void AskToEnd() override { SendSignal(process_, SIGTERM); }

  void KillTree() override {
    {
      const MutexLock lock(mutex_);
      if (collected_) return;  // that is done only when nothing of the tree was left
      ++killers_;
    }
    KillTreeOf(root_);
    const MutexLock lock(mutex_);
    --killers_;
  }

  bool WaitEnd(std::chrono::milliseconds timeout) override {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (IsReadable(process_, static_cast<int>(std::clamp<long long>(left, 0, INT_MAX)))) return true;
      if (Clock::now() >= deadline) return false;
    }
  }

 private:
  static bool IsReadable(const Descriptor& descriptor, int timeout_ms) {
    pollfd one{descriptor.get(), POLLIN, 0};
    return ::poll(&one, 1, timeout_ms) > 0;
  }

  void Watch() {
    SetThreadName("tolm-child");
    bool running = true;
    while (running || output_) {
      // A descriptor below 0 is passed over. Whoever holds the pipe when all that could be found of the
      // tree is killed is not waited for.
      pollfd watched[] = {{running ? process_.get() : -1, POLLIN, 0},
                          {output_ ? output_.get() : -1, POLLIN, 0},
                          {running ? -1 : closing_.get(), POLLIN, 0}};
      if (::poll(watched, std::size(watched), -1) < 0) continue;
      if (watched[1].revents != 0) TakeOutput(1);
      if (watched[0].revents != 0) {
        running = false;
        TakeEnd();
      }
      if (watched[2].revents != 0 && output_) {
        TakeOutput(kRestOfOutput);
        EndOutput();
      }
    }
  }

  void TakeEnd() {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(root_.id), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    const ProcessEnd end =
        info.si_code == CLD_EXITED ? ProcessEnd{info.si_status, 0} : ProcessEnd{0, info.si_status};
    const bool nothing_left = AdoptsOrphans() ? KillTreeOf(root_) : IsAlone();
    if (nothing_left) {
      const MutexLock lock(mutex_);
      if (killers_ == 0) {
        CollectChild(root_.id);
        collected_ = true;
      }
    }
    // What it said last comes before the news of its end.
    TakeOutput(kRestOfOutput);
    if (request_.on_end) TellEnd(end);
  }

  /// An end that nobody hears of would be waited for for ever, so a handler that lacks memory is asked again.
  void TellEnd(const ProcessEnd& end) noexcept {
    constexpr int kPauseMs = 20;
    for (;;) {
      try {
        request_.on_end(end);
        return;
      } catch (const std::bad_alloc&) {
        if (IsReadable(closing_, kPauseMs)) return;
      } catch (...) {
        return;
      }
    }
  }

  bool IsAlone() const noexcept {
    try {
      return !HasDescendants(root_);
    } catch (const std::exception&) {
      return false;  // nobody could be looked for
    }
  }

  /// Reads until nothing is there for the moment, at most `pieces` times.
  void TakeOutput(int pieces) {
    for (; output_ && pieces > 0; --pieces) {
      const ssize_t count = ::read(output_.get(), buffer_, sizeof buffer_);
      if (count > 0) {
        Call([&] { request_.on_output({buffer_, static_cast<std::size_t>(count)}); });
      } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        EndOutput();
      } else if (errno == EAGAIN) {
        return;
      }
    }
  }

  void EndOutput() {
    output_ = Descriptor();
    Call([this] { request_.on_output({}); });
  }

  /// A handler's exception is the handler's loss; the child is watched on.
  template <typename Handler>
  static void Call(Handler&& handler) noexcept {
    try {
      handler();
    } catch (...) {
    }
  }

  // More than a pipe holds: a writer that does not stop must not keep the reader.
  static constexpr int kRestOfOutput = 32;

  const ProcessRequest request_;
  // Set by Begin, before there is a thread.
  TreeRoot root_;
  Descriptor process_;
  Descriptor output_;  // the thread's
  const Descriptor closing_;
  char buffer_[64 * 1024];  // the thread's

  Mutex mutex_;
  int killers_ TOLM_GUARDED_BY(mutex_) = 0;
  bool collected_ TOLM_GUARDED_BY(mutex_) = false;

  std::thread thread_;
};

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(ProcessRequest request, std::string& why) {
  Descriptor closing(::eventfd(0, EFD_CLOEXEC));
  if (!closing) {
    why = SystemMessage("cannot start " + request.program);
    return nullptr;
  }
  try {
    const std::string program = request.program;
    // All that it needs before there is a process, which would be nobody's otherwise.
    auto child = std::make_unique<PosixChildProcess>(std::move(request), std::move(closing));
    try {
      if (!child->Begin(why)) return nullptr;
    } catch (const std::system_error& error) {
      why = "cannot watch " + program + ": " + error.code().message();  // there is no room for a thread
      return nullptr;
    }
    return child;
  } catch (const std::bad_alloc&) {
    why = "memory is short";  // needs none of its own
    return nullptr;
  }
}

}  // namespace os
