#pragma once

// The threads of one end of the transport: they wait for traffic, read it, and run what follows from it.

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "TolmBase/Task.h"
#include "TolmLPCServer/LpcOptions.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"

namespace lpc::wire {

/// Work on its way to a loop. Whoever makes it makes its place in the queue, too, so that handing it on needs
/// no memory.
using WorkList = std::list<std::unique_ptr<Tolm::Base::CTask>>;

/// What a readiness of a stream or a listener is for.
class IoHandler {
 public:
  /// On one thread of the loop; must not block and must not call user code.
  virtual void OnReady(bool readable, bool writable) = 0;
  /// As well; follows FlushSoon.
  virtual void OnFlush() {}

 protected:
  ~IoHandler() = default;
};

/// All threads wait in the poller, and the system wakes one of them for each readiness. That thread
/// reads, and then runs the callbacks itself, without a hand-over; the others go on waiting. What makes
/// this safe for callbacks that block:
///
///   thread 1            thread 2                thread 3
///   waits               waits                   -
///   reads a message     waits
///   callback, blocks    waits
///                       reads a reply, wakes its waiter
///                       reads a message
///                       last one that waits: must not run callbacks  ──► is started, and waits
///                       callback, blocks        waits
///
/// A callback whose last act is to post a task to a pool may run that task, too (TolmBase/TaskThread.h): the
/// thread counts as absent meanwhile.
///
/// A thread runs a callback only while another one is not in a callback. What is left in the queue by
/// a thread that runs callbacks one after the other is looked at every few milliseconds: when nothing has
/// been taken out meanwhile, that thread is stuck, and more threads help.
class IoLoop : public std::enable_shared_from_this<IoLoop> {
 public:
  using Clock = std::chrono::steady_clock;

  /// Runs now and then on one thread of the loop (never on two at once), and says when to run again;
  /// Clock::time_point::max() for "not until asked for". Must not block and must not call user code. When it
  /// throws, it runs again after a moment.
  using Housekeeping = std::function<Clock::time_point(Clock::time_point now)>;

  IoLoop(std::unique_ptr<os::Poller> poller, const Options& options, const char* thread_name,
         Housekeeping housekeeping);
  ~IoLoop();
  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  /// False when not a single thread can be made, and after Stop.
  bool Start();
  /// Runs no more callbacks, destroys what is queued, and waits for the threads; on one of these, not for
  /// itself and those that are inside Stop as well. May be called several times, from any thread.
  void Stop() TOLM_EXCLUDES(mutex_);
  bool IsOwnThread() const;

  /// Gives a token for Arm; what becomes ready under it goes to `handler` for as long as that lives.
  std::uint64_t Register(std::weak_ptr<IoHandler> handler);
  /// Nothing of `source` is watched any more and the token means nobody.
  void Unregister(os::Pollable& source, std::uint64_t token);
  /// As os::Poller::Arm.
  bool Arm(os::Pollable& source, std::uint64_t token, unsigned interest) {
    return poller_->Arm(source, token, interest);
  }

  /// While it lives, its thread, which is one of the loop's, may wait for something else than the poller.
  class Absence {
   public:
    explicit Absence(IoLoop& loop);
    ~Absence();
    Absence(const Absence&) = delete;
    Absence& operator=(const Absence&) = delete;
    /// False when nobody else would be left in the poller; the thread must not wait then.
    explicit operator bool() const { return granted_; }

   private:
    IoLoop& loop_;
    const bool granted_;
  };

  /// Queues work that may block and may call user code.
  void Post(std::unique_ptr<Tolm::Base::CTask> work) TOLM_EXCLUDES(mutex_);
  /// The same for all of the list, which is empty afterwards unless the loop has been stopped.
  void Post(WorkList& work) noexcept TOLM_EXCLUDES(mutex_);
  /// Calls handler->OnFlush when the calling thread has no more work, if it is one of the loop's, or a moment
  /// later. Only where CanFlushSoon.
  void FlushSoon(std::weak_ptr<IoHandler> handler);
  bool CanFlushSoon() const { return poller_->CanWakeIn(); }
  /// Whether the calling thread is one of the loop's, and more work waits behind its callback.
  bool MoreFollows() const;
  /// Housekeeping is to run at `deadline` or before.
  void RunHousekeepingBy(Clock::time_point deadline) TOLM_EXCLUDES(mutex_);

  /// Threads that exist now, for tests.
  std::size_t ThreadCount() const;

 private:
  using Work = std::unique_ptr<Tolm::Base::CTask>;

  class Member;
  void ThreadMain();
  bool LetGo() TOLM_EXCLUDES(mutex_);
  bool TakesWorkNext() const;
  bool StartThreadLocked() TOLM_REQUIRES(mutex_);
  Work TakeWorkLocked() TOLM_REQUIRES(mutex_);
  void JoinEndedLocked() TOLM_REQUIRES(mutex_);
  void WatchLocked() TOLM_REQUIRES(mutex_);
  Clock::time_point NextDeadlineLocked() const TOLM_REQUIRES(mutex_);
  void EnsureTimekeeperLocked() TOLM_REQUIRES(mutex_);
  void RunHousekeepingLocked() TOLM_REQUIRES(mutex_);
  void LookWhetherStuckLocked(Clock::time_point now) TOLM_REQUIRES(mutex_);
  void FlushAllLocked() TOLM_REQUIRES(mutex_);

  const std::unique_ptr<os::Poller> poller_;
  const Options options_;
  const std::string thread_name_;
  const Housekeeping housekeeping_;

  mutable os::Mutex mutex_;
  os::Condition thread_ended_;
  bool stopping_ TOLM_GUARDED_BY(mutex_) = false;
  std::unordered_map<std::uint64_t, std::weak_ptr<IoHandler>> handlers_ TOLM_GUARDED_BY(mutex_);
  std::uint64_t last_token_ TOLM_GUARDED_BY(mutex_) = 0;
  WorkList queue_ TOLM_GUARDED_BY(mutex_);
  std::uint64_t taken_ TOLM_GUARDED_BY(mutex_) = 0;   // works taken out of the queue so far
  std::size_t threads_ TOLM_GUARDED_BY(mutex_) = 0;   // that have not ended
  std::size_t free_ TOLM_GUARDED_BY(mutex_) = 0;      // of these, not inside a callback and not absent
  std::size_t absent_ TOLM_GUARDED_BY(mutex_) = 0;    // of these, in an Absence, or running a task of a pool
  std::size_t stoppers_ TOLM_GUARDED_BY(mutex_) = 0;  // of these, inside Stop
  std::list<std::thread> handles_ TOLM_GUARDED_BY(mutex_);
  std::list<std::thread> ended_ TOLM_GUARDED_BY(mutex_);  // to be joined

  std::vector<std::weak_ptr<IoHandler>> to_flush_ TOLM_GUARDED_BY(mutex_);
  Clock::time_point flush_at_ TOLM_GUARDED_BY(mutex_);

  /// When a waiting thread looks again.
  Clock::time_point timekeeper_until_ TOLM_GUARDED_BY(mutex_) = Clock::time_point::max();
  bool watching_ TOLM_GUARDED_BY(mutex_) = false;  // the queue is looked at every few milliseconds
  bool stuck_ TOLM_GUARDED_BY(mutex_) = false;     // callbacks block: threads are added as they are needed
  std::uint64_t taken_at_last_look_ TOLM_GUARDED_BY(mutex_) = 0;
  int quiet_looks_ TOLM_GUARDED_BY(mutex_) = 0;
  Clock::time_point next_look_ TOLM_GUARDED_BY(mutex_);
  Clock::time_point next_housekeeping_ TOLM_GUARDED_BY(mutex_) = Clock::time_point::max();
  bool housekeeping_runs_ TOLM_GUARDED_BY(mutex_) = false;
};

}  // namespace lpc::wire
