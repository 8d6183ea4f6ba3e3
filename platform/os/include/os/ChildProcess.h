#pragma once

// What a supervisor needs of the system: children with their output, whole trees that end, and the
// certainty that nothing outlives a supervisor that is killed.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace os {

/// How a process ended.
struct ProcessEnd {
  int exit_status = 0;  ///< when it ended by itself
  int signal = 0;       ///< on systems with signals: the one that ended it, otherwise 0
};

/// "exit status 3", "killed by signal 9".
std::string Describe(const ProcessEnd& end);

struct ProcessRequest {
  std::string program;  ///< a path, relative to the caller's folder or absolute; looked for nowhere else
  std::vector<std::string> arguments{};
  std::string working_folder{};                      ///< empty: the caller's
  std::map<std::string, std::string> environment{};  ///< added to the caller's
  /// Receives what the process and its descendants write to stdout and stderr, as it comes, on a thread
  /// of the child's; called with nothing once at the end of all output. Null: output goes nowhere. As long
  /// as it does not return, the process may have to wait before it can write more. Handlers must not throw;
  /// what they throw is dropped.
  std::function<void(std::string_view)> on_output{};
  /// Called once on a thread of the child's when the process itself has ended; and again after a moment when
  /// it throws std::bad_alloc, since nobody would tell of the end a second time.
  std::function<void(const ProcessEnd&)> on_end{};
};

/// A process that this one has started, with everything that it started in turn. The child is killed when
/// this process ends, however it ends; its tree with it where the system has such a thing, and otherwise by
/// whoever supervises this process. stdin is empty; no handle is inherited.
///
/// A descendant is recognised by its parents, by its process group, and by a variable in its environment
/// (TOLM_STARTED_BY). One that has got rid of all three is a stray: see KillStrayDescendants.
class ChildProcess {
 public:
  /// Kills the tree, and waits until the handlers are done; not to be destroyed inside of one.
  virtual ~ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Null when it cannot be started; `why` then says so for people: what was tried, the system's text,
  /// and what is wrong with the file where that can be found out (no such file, not executable, made for
  /// another machine).
  static std::unique_ptr<ChildProcess> Start(ProcessRequest request, std::string& why);

  virtual long id() const = 0;
  virtual bool HasEnded() const = 0;
  /// Asks the process to end, in the way in which the system asks (SIGTERM).
  virtual void AskToEnd() = 0;
  /// Kills the process and all of its descendants, those that have left its group included, and waits until
  /// they have ended, for a second at most.
  virtual void KillTree() = 0;
  /// Whether the process has ended within `timeout`.
  virtual bool WaitEnd(std::chrono::milliseconds timeout) = 0;

 protected:
  ChildProcess() = default;
};

/// From now on descendants of this process whose own parent ends become its children, where the system
/// has such a thing, and are killed when the child that they came from is, or has ended. For
/// programs of ours, before they start children; ends of children that are started in other ways cannot be
/// waited for any more.
void AdoptOrphans();

/// Ends every process below this one that none of its living ChildProcess objects stands for: what a
/// killed supervisor below this one left behind.
void KillStrayDescendants();

/// Arranges that this process is killed when the one that started it ends, where the system can do so;
/// on others the job of the parent sees to it.
void EndWithParent();

/// Whether some process of this user runs the executable `path`, compared as the system shows it: symbolic
/// links resolved. A file that was replaced or removed since still counts.
bool IsExecutableRunning(const std::string& path);

/// Held by at most one process of this user at a time, under a name; freed by the system when its holder
/// ends.
class ProcessLock {
 public:
  virtual ~ProcessLock() = default;
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;
  /// Null when another process holds it (`why` empty) or the system says no (`why` says what).
  static std::unique_ptr<ProcessLock> TryTake(const std::string& name, std::string& why);

 protected:
  ProcessLock() = default;
};

}  // namespace os
