#include "Spawn.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <deque>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "NoSignals.h"
#include "ProcessTable.h"
#include "ProcessTree.h"
#include "os/ExecutableFault.h"
#include "os/Mutex.h"
#include "os/ThreadName.h"

namespace os {
namespace {

enum class Step { kGroup, kParent, kDescriptors, kFolder, kExecute };

/// What a process that could not become the program tells before it ends.
struct Failure {
  Step step;
  int error;
};

/// All that is needed between fork and exec, made before.
struct Plan {
  const char* program;
  char* const* arguments;
  char* const* environment;
  const char* folder;  ///< null: the caller's
  int input;
  int output;
  int report;
  pid_t parent;
};

// Another thread may have held any lock at the moment of the fork, the allocator's included, and its
// owner does not exist here: nothing but plain system calls from here to exec.
[[noreturn]] void Become(const Plan& plan) {
  const auto fail = [&plan](Step step) {
    const Failure failure{step, errno};
    // Fits into a pipe at once; when it does not arrive, the parent finds a process that ended by itself.
    [[maybe_unused]] const ssize_t told = ::write(plan.report, &failure, sizeof failure);
    ::_exit(127);
  };
  if (::setpgid(0, 0) != 0) fail(Step::kGroup);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) fail(Step::kParent);
  if (::getppid() != plan.parent) ::_exit(127);  // ended before its end could have been reported

  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &action, nullptr);

  ::dup2(plan.input, STDIN_FILENO);
  ::dup2(plan.output, STDOUT_FILENO);
  ::dup2(plan.output, STDERR_FILENO);
  // Marked and not closed, so that the report still gets through when exec fails.
  constexpr unsigned kFirst = STDERR_FILENO + 1;
  if (::close_range(kFirst, ~0U, CLOSE_RANGE_CLOEXEC) != 0) fail(Step::kDescriptors);
  if (plan.folder != nullptr && ::chdir(plan.folder) != 0) fail(Step::kFolder);

  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execve(plan.program, plan.arguments, plan.environment);
  fail(Step::kExecute);
  ::_exit(127);
}

/// The thread that forks. Children are killed when the thread that forked them ends, not the process, and
/// the threads that ask for children may end at any time; this one lasts as long as the process.
class Spawner {
 public:
  static Spawner& Instance() {
    static Spawner* const spawner = new Spawner;
    return *spawner;
  }

  /// 0, or the system's code when there is no process, or no descriptor of it.
  int Fork(const Plan& plan, SpawnedProcess& spawned) {
    std::packaged_task<int()> job([&] {
      ChildPlace place{{0, spawned.root}};
      const pid_t id = ForkChild(spawned.root, place);
      if (id == 0) Become(plan);
      if (id > 0) spawned.process = OpenProcess(id);
      return spawned.process ? 0 : errno;
    });
    std::future<int> error = job.get_future();
    {
      const MutexLock lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    wanted_.notify_one();
    return error.get();
  }

 private:
  Spawner() {
    // A program that was started with this signal ignored would never learn how its children ended.
    struct sigaction action {};
    if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
      ::signal(SIGCHLD, SIG_DFL);
    }
    const NoSignals here;
    std::thread([this] { Run(); }).detach();
  }

  void Run() {
    SetThreadName("tolm-spawner");
    for (;;) {
      std::packaged_task<int()> job;
      {
        UniqueLock lock(mutex_);
        wanted_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return !jobs_.empty(); });
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }

  Mutex mutex_;
  Condition wanted_;
  std::deque<std::packaged_task<int()>> jobs_ TOLM_GUARDED_BY(mutex_);
};

std::vector<std::string> EnvironmentFor(const ProcessRequest& request, const std::string& mark) {
  auto added = request.environment;
  added[kMarkVariable] = mark;
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    if (!added.contains(std::string(text.substr(0, text.find('='))))) entries.emplace_back(text);
  }
  for (const auto& [name, value] : added) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// A descriptor that is none of the standard ones, which the child replaces one after the other.
Descriptor AboveStandard(Descriptor descriptor) {
  if (!descriptor || descriptor.get() > STDERR_FILENO) return descriptor;
  return Descriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Pipe {
  Descriptor read;
  Descriptor write;
};

bool MakePipe(Pipe& made) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  made.read = AboveStandard(Descriptor(ends[0]));
  made.write = AboveStandard(Descriptor(ends[1]));
  return made.read && made.write;
}

/// A NUL would cut a text off behind the caller's back.
bool IsPassable(const ProcessRequest& request) {
  const auto whole = [](const std::string& text) { return text.find('\0') == std::string::npos; };
  for (const std::string& argument : request.arguments) {
    if (!whole(argument)) return false;
  }
  for (const auto& [name, value] : request.environment) {
    if (name.empty() || name.find('=') != std::string::npos || !whole(name) || !whole(value)) return false;
  }
  return !request.program.empty() && whole(request.program) && whole(request.working_folder);
}

std::string Explain(const ProcessRequest& request, const std::string& program, const Failure& failure) {
  const std::string doing = "cannot start " + request.program;
  switch (failure.step) {
    case Step::kGroup:
      return SystemMessage(doing + ": no process group of its own", failure.error);
    case Step::kParent:
      return SystemMessage(doing + ": it cannot be tied to this process", failure.error);
    case Step::kDescriptors:
      return SystemMessage(doing + ": descriptors cannot be kept from it", failure.error);
    case Step::kFolder:
      return SystemMessage(doing + ": cannot go to the folder " + request.working_folder, failure.error);
    case Step::kExecute:
      break;
  }
  const std::string fault = ExecutableFault(program, failure.error);
  return SystemMessage(doing, failure.error) + (fault.empty() ? "" : ": " + fault);
}

/// Whether the child became the program; waits for that.
bool HasExecuted(const Descriptor& report, Failure& failure) {
  ssize_t count = 0;
  do {
    count = ::read(report.get(), &failure, sizeof failure);
  } while (count < 0 && errno == EINTR);
  return count != sizeof failure;
}

}  // namespace

bool Spawn(const ProcessRequest& request, SpawnedProcess& spawned, std::string& why) {
  if (!IsPassable(request)) {
    why = "cannot start " + request.program + ": its name, an argument or a variable is not a possible one";
    return false;
  }
  const Descriptor nothing = AboveStandard(Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)));
  Pipe report;
  Pipe output;
  if (!nothing || !MakePipe(report) || (request.on_output && !MakePipe(output)) ||
      (output.read && ::fcntl(output.read.get(), F_SETFL, O_NONBLOCK) != 0)) {
    why = SystemMessage("cannot start " + request.program);
    return false;
  }

  // A relative path is the caller's, also for a child that works in another folder.
  std::error_code ignored;
  const std::string program = std::filesystem::absolute(request.program, ignored).string();
  std::vector<std::string> words{request.program};
  words.insert(words.end(), request.arguments.begin(), request.arguments.end());
  spawned.root.mark = MakeMark();
  std::vector<std::string> environment = EnvironmentFor(request, spawned.root.mark);
  const std::vector<char*> argument_pointers = Pointers(words);
  const std::vector<char*> environment_pointers = Pointers(environment);
  const Plan plan{.program = program.c_str(),
                  .arguments = argument_pointers.data(),
                  .environment = environment_pointers.data(),
                  .folder = request.working_folder.empty() ? nullptr : request.working_folder.c_str(),
                  .input = nothing.get(),
                  .output = output.write ? output.write.get() : nothing.get(),
                  .report = report.write.get(),
                  .parent = ::getpid()};

  const int error = Spawner::Instance().Fork(plan, spawned);
  if (spawned.root.id <= 0) {
    why = SystemMessage("cannot start " + request.program, error);
    return false;
  }
  report.write = Descriptor();
  Failure failure{};
  const bool executed = HasExecuted(report.read, failure);
  if (executed && spawned.process) {
    spawned.output = std::move(output.read);
    return true;
  }
  // Without its descriptor the number serves: it is nobody else's before it is collected.
  ::kill(spawned.root.id, SIGKILL);
  CollectChild(spawned.root.id);
  spawned.root.id = 0;
  why =
      executed ? SystemMessage("cannot watch " + request.program, error) : Explain(request, program, failure);
  return false;
}

}  // namespace os
