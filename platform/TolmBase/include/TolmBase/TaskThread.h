#pragma once

#include <memory>

#include "TolmBase/Noncopyable.h"
#include "TolmBase/Task.h"

namespace Tolm::Base {

/// A thread that runs tasks, a pool's or somebody else's. A task whose very last act is to post another one
/// says so, and need not wait for a second thread to wake up for that:
///
///   pool A, thread T                      pool B
///   runs a                                its threads sleep
///   a: CLastAct; B.PostTask(b) ─────────► has room, and nobody waits before b: b is T's next task
///   a is done, T is absent
///   runs b ──────────────────────────────  T counts among B's, and B's Stop waits for it
///   T is back, looks for work
///
/// To both pools this is as if T had slept and a thread of B had run b: B runs no more tasks at a time than
/// it may, and A has another thread do T's work if b takes long.
class CTaskThread : CNoncopyable {
 public:
  /// While one lives, what its thread posts is the last act of the task that runs there: the task returns at
  /// once, and waits for nobody. Without effect on a thread that runs no tasks.
  class CLastAct : CNoncopyable {
   public:
    CLastAct();
    ~CLastAct();

   private:
    CTaskThread* const thread_;
  };

  /// Somewhere a thread can run a task without being at home there.
  class IHost {
   public:
    virtual void RunAsGuest(std::unique_ptr<CTask> task) = 0;

   protected:
    ~IHost() = default;
  };

  /// The calling thread, when its task has come to its last act and it may leave; otherwise null.
  static CTaskThread* InLastAct();
  /// Of InLastAct, once: `task` is the next one, and runs at `host`, which has kept a place for it.
  void Follow(std::shared_ptr<IHost> host, std::unique_ptr<CTask> task);
  /// Whether the calling thread is on its way to `host`.
  static bool IsOnItsWayTo(const IHost* host);

 protected:
  /// The calling thread, for as long as the object lives.
  CTaskThread();
  ~CTaskThread();

  /// To be called when the thread's own task is done: runs what follows it.
  void RunFollowers();

  /// Nobody waits for this thread at home. Called on the thread itself, as are the others.
  virtual bool MayLeave() = 0;
  virtual void Leave() = 0;
  virtual void ComeBack() = 0;

 private:
  bool in_last_act_ = false;
  bool away_ = false;
  std::shared_ptr<IHost> next_host_;
  std::unique_ptr<CTask> next_task_;
};

}  // namespace Tolm::Base
