#pragma once

#include <cstddef>
#include <memory>

#include "TolmBase/Noncopyable.h"
#include "TolmBase/Task.h"

namespace Tolm::Base {

/// A message loop with as many threads as its work needs: one queue, first in, first out.
///
///   new ──PostTask queues──► Start ──► running ──Stop──► stopped ──PostTask destroys
///                              ▲                            │
///                              └───── Start, or Reopen ─────┘
///
/// All operations may be called from any thread, also from tasks of the same pool.
class CMessageLoopDyThreadPool : CNoncopyable {
 public:
  /// `name` (at most 15 bytes count) is what the pool's threads are called in a debugger.
  explicit CMessageLoopDyThreadPool(const char* name = "TolmPool");
  /// As Stop(false), also on one of the pool's own threads. No other call may be under way, but for the
  /// PostTask of the task that destroys the pool.
  virtual ~CMessageLoopDyThreadPool();

  /// Starts `min_threads` threads, and runs what was queued. Later a thread is added whenever a task is
  /// posted and nobody is idle, until there are `max_threads` (at least one, at least `min_threads`;
  /// negative numbers count as 0). A thread above `min_threads` that was idle for `idle_seconds` ends;
  /// with 0 it stays until Stop. False, and nothing changes, when the pool is running already or a first
  /// thread cannot be made; fewer threads than wanted are no failure.
  bool Start(int min_threads, int max_threads, int idle_seconds);

  /// Takes no new task, lets the running ones finish and joins their threads. `drain` true: what is
  /// queued is run first; false: it is destroyed unrun, on the calling thread. A call that finds another
  /// Stop under way returns when the threads are gone, too.
  /// A caller that is one of the pool's threads is not waited for: its thread ends when its task does, or,
  /// when it is the only one that could drain the queue, behind that; the next Stop from outside joins it.
  /// Such a caller waits for the other threads, but not for another Stop, which may be waiting for it.
  /// Tasks of two pools that stop each other's pool wait for each other without end.
  /// False when the pool was not running; what a pool that was never started had queued is then
  /// destroyed all the same.
  bool Stop(bool drain);

  /// Lets a stopped pool queue tasks again, for a Start that is about to come. Otherwise no effect.
  void Reopen();

  /// Queues `task` and owns it from then on, whatever is returned. Never blocks, never runs the task before
  /// it returns, nor on the calling thread, unless that is in its last act (TaskThread.h). False for a null
  /// task, after Stop, when the pool is running without a thread and none can be made, and when memory is
  /// short: the task is then destroyed, on the calling thread.
  bool PostTask(CTask* task);

  /// Threads of its own that exist now, for diagnostics and tests.
  std::size_t ThreadCount() const;
  /// Tasks that are queued and not yet taken by a thread, for diagnostics and tests.
  std::size_t QueuedCount() const;

 private:
  struct Core;

  // Shared with the pool's threads, so that one that outlives the pool touches nothing that is gone.
  const std::shared_ptr<Core> core_;
};

}  // namespace Tolm::Base
