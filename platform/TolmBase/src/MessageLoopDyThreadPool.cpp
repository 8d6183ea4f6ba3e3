#include "TolmBase/MessageLoopDyThreadPool.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <list>
#include <string>
#include <thread>
#include <utility>

#include "TaskQueue.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/TaskThread.h"
#include "os/Mutex.h"
#include "os/ThreadName.h"

namespace Tolm::Base {
namespace {

using Threads = std::list<std::thread>;

/// When so many threads are guests elsewhere, their tasks are long ones, and others had better be woken.
constexpr std::size_t kMostAbsent = 4;

/// The core of the pool whose thread this is, and of the one where it is a guest.
thread_local const void* t_own_core = nullptr;
thread_local const void* t_host_core = nullptr;

void RunAndDestroy(std::unique_ptr<CTask> task) {
  try {
    task->Run();
  } catch (const std::exception& error) {
    TOLM_LOG(kLogLevelError, "TolmBase", "A task threw: %s", error.what());
  } catch (...) {
    TOLM_LOG(kLogLevelError, "TolmBase", "A task threw something that is no std::exception");
  }
}

void MoveOwnThread(Threads& from, Threads& to) {
  const auto own = std::find_if(from.begin(), from.end(), [](const std::thread& thread) {
    return thread.get_id() == std::this_thread::get_id();
  });
  if (own != from.end()) to.splice(to.end(), from, own);
}

void JoinAll(Threads& threads) {
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

// A thread's handle wanders:
//
//   members ──Stop──► leavers ──► joined by a Stop from outside
//      └──idle too long──┴──ends by itself──► ended ──► joined by the next that ends, or by a Stop
//
// so that every thread is joined in the end, and a library that was stopped can be unloaded.
//
// No task waits in vain: every queued task is covered, either by an idle thread that is or will be awake
// and looks at the queue before it waits again, or by all threads being busy, which look at it after
// their tasks. A thread that was just made counts as idle until it looks for the first time.
//
// A thread that is absent runs a task of another pool, and counts there, as a guest, instead of here.
struct CMessageLoopDyThreadPool::Core final : CTaskThread::IHost, std::enable_shared_from_this<Core> {
  enum class State { kNew, kRunning, kStopped };
  using TimePoint = std::chrono::steady_clock::time_point;
  static constexpr TimePoint kNoTime = TimePoint::max();

  explicit Core(const char* pool_name) : name(pool_name) {}
  ~Core();

  bool AddThread() TOLM_REQUIRES(mutex);
  /// Sees to it that somebody comes for the queue: makes a thread, or has the caller wake an idle one. One
  /// at a time, since whoever comes and finds more calls the next one; a burst thus costs no wake-up for
  /// each task.
  enum class Called { kEnough, kWake, kShort, kNewlyShort };  // short: one is wanted and cannot be made
  Called CallAnother() TOLM_REQUIRES(mutex);
  /// Waits for work or a stop. True when neither came until `idle_end`, which the first wait after a
  /// task sets.
  bool IsIdleTooLong(os::UniqueLock& lock, std::uint64_t own_generation, TimePoint& idle_end)
      TOLM_REQUIRES(mutex);
  /// The end of the calling thread. Gives those that have ended before it, for it to join.
  Threads EndOwnThread() TOLM_REQUIRES(mutex);
  /// Threads that run this pool's tasks, or may begin to without being called.
  std::size_t Busy() const TOLM_REQUIRES(mutex) { return members.size() - idle - absent + guests; }
  /// Whether an idle member may end. One stays with the guests, who take nothing from the queue.
  bool MayShrink() const TOLM_REQUIRES(mutex) {
    return members.size() > std::max<std::size_t>(min_threads, guests > 0 ? 1 : 0);
  }
  /// Keeps a place for the calling thread's next task, which nobody overtakes then.
  bool TakeGuest() TOLM_REQUIRES(mutex);

  /// What CallAnother left to be done. A thread that is woken under the lock would only wait for that.
  void Finish(Called called) TOLM_EXCLUDES(mutex);
  void WarnOfShortage() const TOLM_EXCLUDES(mutex);
  void RunAsGuest(std::unique_ptr<CTask> task) override TOLM_EXCLUDES(mutex);
  /// Whether the calling thread runs a task of this pool, or is to come back here.
  bool IsOwnThread() const;
  class Member;
  /// The life of a thread that was made in `own_generation`.
  void ThreadMain(std::uint64_t own_generation) TOLM_EXCLUDES(mutex);

  const std::string name;

  /// Held while threads are joined, so that a second Stop waits for the first. Locked before `mutex`, and
  /// never waited for by the pool's own threads: the holder may be joining them.
  os::Mutex joining;

  os::Mutex mutex;
  os::Condition work_or_stop;
  os::Condition guest_left;
  State state TOLM_GUARDED_BY(mutex) = State::kNew;
  TaskQueue queue TOLM_GUARDED_BY(mutex);
  Threads members TOLM_GUARDED_BY(mutex);
  Threads leavers TOLM_GUARDED_BY(mutex);
  Threads ended TOLM_GUARDED_BY(mutex);
  std::size_t alive TOLM_GUARDED_BY(mutex) = 0;   // threads that have not ended, wherever their handles are
  std::size_t idle TOLM_GUARDED_BY(mutex) = 0;    // members that wait, or are about to look for work
  std::size_t absent TOLM_GUARDED_BY(mutex) = 0;  // members that are guests elsewhere
  std::size_t guests TOLM_GUARDED_BY(mutex) = 0;  // threads from elsewhere that run a task, or are about to
  std::size_t stopping_guests TOLM_GUARDED_BY(mutex) = 0;  // of these, inside Stop
  std::size_t min_threads TOLM_GUARDED_BY(mutex) = 0;
  std::size_t max_threads TOLM_GUARDED_BY(mutex) = 0;
  std::chrono::seconds idle_time TOLM_GUARDED_BY(mutex){0};
  /// A thread was called and has not looked at the queue yet.
  bool is_one_coming TOLM_GUARDED_BY(mutex) = false;
  bool is_short_of_threads TOLM_GUARDED_BY(mutex) = false;  // the last attempt to add a thread failed
  /// Raised by Start and Reopen. A thread of an earlier generation, whose own task stopped the pool,
  /// leaves the queue and the counters to the later ones.
  std::uint64_t generation TOLM_GUARDED_BY(mutex) = 0;
};

CMessageLoopDyThreadPool::Core::~Core() {
  // Every thread that still runs shares the core, so all others were joined: what may be left is the
  // handle of a thread that ended behind the last Stop, possibly this very one.
  for (std::thread& thread : ended) thread.detach();
}

bool CMessageLoopDyThreadPool::Core::AddThread() {
  try {
    members.emplace_back(
        [core = shared_from_this(), own_generation = generation] { core->ThreadMain(own_generation); });
  } catch (const std::exception&) {
    return false;
  }
  ++alive;
  ++idle;
  return true;
}

CMessageLoopDyThreadPool::Core::Called CMessageLoopDyThreadPool::Core::CallAnother() {
  if (state != State::kRunning || queue.empty() || is_one_coming) return Called::kEnough;
  if (Busy() >= max_threads) return Called::kEnough;
  if (idle > 0) {
    is_one_coming = true;
    return Called::kWake;
  }
  is_one_coming = AddThread();
  const bool was_short = std::exchange(is_short_of_threads, !is_one_coming);
  if (is_one_coming) return Called::kEnough;
  return was_short ? Called::kShort : Called::kNewlyShort;
}

void CMessageLoopDyThreadPool::Core::Finish(Called called) {
  if (called == Called::kWake) work_or_stop.notify_one();
  if (called == Called::kNewlyShort) WarnOfShortage();
}

bool CMessageLoopDyThreadPool::Core::TakeGuest() {
  // One that is idle could have run the task; without one, the pool has to grow as always.
  if (state != State::kRunning || !queue.empty() || idle == 0 || Busy() >= max_threads) return false;
  ++guests;
  return true;
}

void CMessageLoopDyThreadPool::Core::RunAsGuest(std::unique_ptr<CTask> task) {
  const void* const host_before = std::exchange(t_host_core, this);
  RunAndDestroy(std::move(task));
  t_host_core = host_before;
  auto called = Called::kEnough;
  {
    const os::MutexLock lock(mutex);
    --guests;
    // What was posted while no place was left.
    called = CallAnother();
    if (guests == 0 && min_threads == 0) work_or_stop.notify_one();  // the one that stayed may end now
    guest_left.notify_all();
  }
  Finish(called);
}

bool CMessageLoopDyThreadPool::Core::IsOwnThread() const {
  return t_own_core == this || t_host_core == this || CTaskThread::IsOnItsWayTo(this);
}

void CMessageLoopDyThreadPool::Core::WarnOfShortage() const {
  TOLM_LOG(kLogLevelWarning, "TolmBase", "The pool %s cannot make another thread", name.c_str());
}

bool CMessageLoopDyThreadPool::Core::IsIdleTooLong(os::UniqueLock& lock, std::uint64_t own_generation,
                                                   TimePoint& idle_end) {
  bool too_long = false;
  ++idle;
  if (idle_time.count() > 0 && MayShrink()) {
    if (idle_end == kNoTime) idle_end = std::chrono::steady_clock::now() + idle_time;
    too_long = work_or_stop.wait_until(lock, idle_end) == std::cv_status::timeout;
  } else {
    work_or_stop.wait(lock);
  }
  if (generation == own_generation) {
    --idle;
    is_one_coming = false;
  }
  return too_long;
}

Threads CMessageLoopDyThreadPool::Core::EndOwnThread() {
  Threads ended_before;
  ended_before.swap(ended);
  MoveOwnThread(members, ended);
  MoveOwnThread(leavers, ended);
  --alive;
  return ended_before;
}

// One of the pool's threads, as a thread that may run a task of another pool.
class CMessageLoopDyThreadPool::Core::Member final : public CTaskThread {
 public:
  Member(Core& core, std::uint64_t generation) : core_(core), generation_(generation) {}
  using CTaskThread::RunFollowers;

 private:
  bool MayLeave() override {
    const os::MutexLock lock(core_.mutex);
    return core_.queue.empty() && core_.generation == generation_ && core_.absent < kMostAbsent;
  }
  void Leave() override {
    auto called = Called::kEnough;
    {
      const os::MutexLock lock(core_.mutex);
      left_ = core_.generation == generation_;
      if (left_) ++core_.absent;
      called = core_.CallAnother();  // a place is left now
    }
    core_.Finish(called);
  }
  void ComeBack() override {
    const os::MutexLock lock(core_.mutex);
    if (left_ && core_.generation == generation_) --core_.absent;
  }

  Core& core_;
  const std::uint64_t generation_;
  bool left_ = false;
};

void CMessageLoopDyThreadPool::Core::ThreadMain(std::uint64_t own_generation) {
  t_own_core = this;
  os::SetThreadName(name.c_str());
  Member self(*this, own_generation);
  TimePoint idle_end = kNoTime;
  bool idle_too_long = false;
  os::UniqueLock lock(mutex);
  if (generation == own_generation) {
    --idle;
    is_one_coming = false;
  }
  while (generation == own_generation) {
    // Guests, and threads that were absent, may have taken all places.
    const bool has_place = state != State::kRunning || Busy() <= max_threads;
    if (!queue.empty() && has_place) {
      std::unique_ptr<CTask> task = queue.Pop();
      const Called called = CallAnother();
      lock.unlock();
      Finish(called);
      RunAndDestroy(std::move(task));
      self.RunFollowers();
      lock.lock();
      idle_end = kNoTime;
      idle_too_long = false;
    } else if (state != State::kRunning || (idle_too_long && MayShrink()) ||
               members.size() - absent > max_threads) {
      break;  // the last: others were made while it was absent
    } else {
      idle_too_long = IsIdleTooLong(lock, own_generation, idle_end);
    }
  }
  Threads ended_before = EndOwnThread();
  lock.unlock();
  JoinAll(ended_before);
}

CMessageLoopDyThreadPool::CMessageLoopDyThreadPool(const char* name) : core_(std::make_shared<Core>(name)) {}

CMessageLoopDyThreadPool::~CMessageLoopDyThreadPool() {
  Stop(false);
}

bool CMessageLoopDyThreadPool::Start(int min_threads, int max_threads, int idle_seconds) {
  Core& core = *core_;
  std::size_t wanted = 0;
  std::size_t made = 0;
  {
    const os::MutexLock lock(core.mutex);
    if (core.state == Core::State::kRunning) return false;
    const auto min = static_cast<std::size_t>(std::max(min_threads, 0));
    const auto max = static_cast<std::size_t>(std::max({1, min_threads, max_threads}));
    wanted = std::max(min, std::min(max, core.queue.size()));

    const std::size_t idle_before = core.idle;
    ++core.generation;
    core.idle = 0;
    const std::size_t absent_before = std::exchange(core.absent, 0);
    core.is_one_coming = false;
    while (made < wanted && core.AddThread()) ++made;
    if (made > 0 || wanted == 0) {
      core.state = Core::State::kRunning;
      core.min_threads = min;
      core.max_threads = max;
      core.idle_time = std::chrono::seconds(std::max(idle_seconds, 0));
      core.is_short_of_threads = made < wanted;
    } else {
      --core.generation;
      core.idle = idle_before;
      core.absent = absent_before;
    }
  }
  if (made < wanted) {
    TOLM_LOG(kLogLevelWarning, "TolmBase", "The pool %s started %zu of %zu threads", core.name.c_str(), made,
             wanted);
  }
  return made > 0 || wanted == 0;
}

bool CMessageLoopDyThreadPool::Stop(bool drain) {
  // The pool may be destroyed by a task that is run or destroyed below.
  const std::shared_ptr<Core> core = core_;
  const bool is_own_thread = core->IsOwnThread();
  const bool is_guest = t_host_core == core.get() || CTaskThread::IsOnItsWayTo(core.get());
  // Tried by some and waited for by others, which clang cannot follow; it guards nothing but the joins.
  std::unique_lock<os::Mutex> joining(core->joining, std::defer_lock);
  const bool joins_members = is_own_thread && joining.try_lock();
  bool was_running = false;
  TaskQueue unrun;
  Threads to_join;
  {
    const os::MutexLock lock(core->mutex);
    was_running = core->state == Core::State::kRunning;
    if (!drain || core->state == Core::State::kNew) unrun.swap(core->queue);
    core->state = Core::State::kStopped;
    if (joins_members) {
      MoveOwnThread(core->members, core->leavers);
      to_join.swap(core->members);
    } else {
      core->leavers.splice(core->leavers.end(), core->members);
    }
    core->work_or_stop.notify_all();
  }
  while (!unrun.empty()) unrun.Pop();
  if (!is_own_thread) {
    joining.lock();
    const os::MutexLock lock(core->mutex);
    to_join.swap(core->leavers);
    to_join.splice(to_join.end(), core->ended);
  }
  JoinAll(to_join);
  {
    os::UniqueLock lock(core->mutex);
    if (is_guest) {
      ++core->stopping_guests;
      core->guest_left.notify_all();
    }
    const bool waits = !is_own_thread || joins_members;
    if (waits) {
      core->guest_left.wait(
          lock, [&]() TOLM_REQUIRES(core->mutex) { return core->guests == core->stopping_guests; });
    }
    if (is_guest) --core->stopping_guests;
  }
  return was_running;
}

void CMessageLoopDyThreadPool::Reopen() {
  Core& core = *core_;
  const os::MutexLock lock(core.mutex);
  if (core.state != Core::State::kStopped) return;
  core.state = Core::State::kNew;
  ++core.generation;
  core.idle = 0;
  core.absent = 0;
  core.is_one_coming = false;
}

bool CMessageLoopDyThreadPool::PostTask(CTask* task) {
  std::unique_ptr<CTask> owned(task);
  if (!owned) return false;
  // The task may destroy the pool before this returns.
  const std::shared_ptr<Core> shared = core_;
  Core& core = *shared;
  CTaskThread* const next = CTaskThread::InLastAct();
  auto called = Core::Called::kEnough;
  bool lacks_memory = false;
  {
    const os::MutexLock lock(core.mutex);
    if (core.state == Core::State::kStopped) return false;
    if (next != nullptr && core.TakeGuest()) {
      next->Follow(shared, std::move(owned));
      return true;
    }
    try {
      core.queue.Push(std::move(owned));
    } catch (const std::exception&) {
      lacks_memory = true;
    }
    if (!lacks_memory) called = core.CallAnother();
    const bool is_short = called == Core::Called::kShort || called == Core::Called::kNewlyShort;
    if (is_short && core.members.empty()) {
      owned = core.queue.PopNewest();
    }
  }
  if (lacks_memory) {
    TOLM_LOG(kLogLevelError, "TolmBase", "The pool %s has no memory for a task", core.name.c_str());
  } else if (owned) {
    TOLM_LOG(kLogLevelError, "TolmBase", "The pool %s has no thread for a task and can make none",
             core.name.c_str());
  } else {
    core.Finish(called);
  }
  return owned == nullptr;
}

std::size_t CMessageLoopDyThreadPool::ThreadCount() const {
  const os::MutexLock lock(core_->mutex);
  return core_->alive;
}

std::size_t CMessageLoopDyThreadPool::QueuedCount() const {
  const os::MutexLock lock(core_->mutex);
  return core_->queue.size();
}

}  // namespace Tolm::Base
