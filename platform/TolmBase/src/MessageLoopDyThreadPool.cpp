#include "TolmBase/MessageLoopDyThreadPool.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "TolmBase/LogLine.h"
#include "os/ThreadName.h"

namespace Tolm::Base {
namespace {

using Queue = std::deque<std::unique_ptr<CTask>>;
using Threads = std::list<std::thread>;

/// The core of the pool whose thread this is.
thread_local const void* t_own_core = nullptr;

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
struct CMessageLoopDyThreadPool::Core : std::enable_shared_from_this<Core> {
  enum class State { kNew, kRunning, kStopped };
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit Core(const char* pool_name) : name(pool_name) {}
  ~Core();

  // These want `mutex` to be held.
  bool AddThread();
  /// Sees to it that somebody comes for the queue: wakes an idle thread, or makes one. One at a time, since
  /// whoever comes and finds more calls the next one; a burst thus costs no wake-up for each task.
  enum class Called { kEnough, kShort, kNewlyShort };  // short: one is wanted and cannot be made
  Called CallAnother();
  /// Waits for work or a stop. True when neither came until `idle_end`, which the first wait after a
  /// task sets.
  bool IsIdleTooLong(std::unique_lock<std::mutex>& lock, std::uint64_t own_generation,
                     std::optional<TimePoint>& idle_end);
  void EndOwnThread(std::unique_lock<std::mutex>& lock);

  void WarnOfShortage() const;
  /// The life of a thread that was made in `own_generation`.
  void ThreadMain(std::uint64_t own_generation);

  const std::string name;

  /// Held while threads are joined, so that a second Stop waits for the first. Locked before `mutex`, and
  /// never waited for by the pool's own threads: the holder may be joining them.
  std::mutex joining;

  std::mutex mutex;
  // All below is guarded by mutex.
  std::condition_variable work_or_stop;
  State state = State::kNew;
  Queue queue;
  Threads members;
  Threads leavers;
  Threads ended;
  std::size_t alive = 0;  // threads that have not ended, wherever their handles are
  std::size_t idle = 0;   // members that wait, or are about to look for work
  std::size_t min_threads = 0;
  std::size_t max_threads = 0;
  std::chrono::seconds idle_time{0};
  bool is_one_coming = false;        // a thread was called and has not looked at the queue yet
  bool is_short_of_threads = false;  // the last attempt to add a thread failed
  /// Raised by Start and Reopen. A thread of an earlier generation, whose own task stopped the pool,
  /// leaves the queue and the counters to the later ones.
  std::uint64_t generation = 0;
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
  if (idle > 0) {
    is_one_coming = true;
    work_or_stop.notify_one();
    return Called::kEnough;
  }
  if (members.size() >= max_threads) return Called::kEnough;
  is_one_coming = AddThread();
  const bool was_short = std::exchange(is_short_of_threads, !is_one_coming);
  if (is_one_coming) return Called::kEnough;
  return was_short ? Called::kShort : Called::kNewlyShort;
}

void CMessageLoopDyThreadPool::Core::WarnOfShortage() const {
  TOLM_LOG(kLogLevelWarning, "TolmBase", "The pool %s cannot make another thread", name.c_str());
}

bool CMessageLoopDyThreadPool::Core::IsIdleTooLong(std::unique_lock<std::mutex>& lock,
                                                   std::uint64_t own_generation,
                                                   std::optional<TimePoint>& idle_end) {
  bool too_long = false;
  ++idle;
  if (idle_time.count() > 0 && members.size() > min_threads) {
    if (!idle_end) idle_end = std::chrono::steady_clock::now() + idle_time;
    too_long = work_or_stop.wait_until(lock, *idle_end) == std::cv_status::timeout;
  } else {
    work_or_stop.wait(lock);
  }
  if (generation == own_generation) {
    --idle;
    is_one_coming = false;
  }
  return too_long;
}

void CMessageLoopDyThreadPool::Core::EndOwnThread(std::unique_lock<std::mutex>& lock) {
  Threads ended_before;
  ended_before.swap(ended);
  MoveOwnThread(members, ended);
  MoveOwnThread(leavers, ended);
  --alive;
  lock.unlock();
  JoinAll(ended_before);
}

void CMessageLoopDyThreadPool::Core::ThreadMain(std::uint64_t own_generation) {
  t_own_core = this;
  os::SetThreadName(name.c_str());
  std::optional<TimePoint> idle_end;
  bool idle_too_long = false;
  std::unique_lock lock(mutex);
  if (generation == own_generation) {
    --idle;
    is_one_coming = false;
  }
  while (generation == own_generation) {
    if (!queue.empty()) {
      std::unique_ptr<CTask> task = std::move(queue.front());
      queue.pop_front();
      const Called called = CallAnother();
      lock.unlock();
      if (called == Called::kNewlyShort) WarnOfShortage();
      RunAndDestroy(std::move(task));
      lock.lock();
      idle_end.reset();
      idle_too_long = false;
    } else if (state != State::kRunning || (idle_too_long && members.size() > min_threads)) {
      break;
    } else {
      idle_too_long = IsIdleTooLong(lock, own_generation, idle_end);
    }
  }
  EndOwnThread(lock);
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
    const std::lock_guard lock(core.mutex);
    if (core.state == Core::State::kRunning) return false;
    const auto min = static_cast<std::size_t>(std::max(min_threads, 0));
    const auto max = static_cast<std::size_t>(std::max({1, min_threads, max_threads}));
    wanted = std::max(min, std::min(max, core.queue.size()));

    const std::size_t idle_before = core.idle;
    ++core.generation;
    core.idle = 0;
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
  const bool is_own_thread = t_own_core == core.get();
  std::unique_lock joining(core->joining, std::defer_lock);
  const bool joins_members = is_own_thread && joining.try_lock();
  bool was_running = false;
  Queue unrun;
  Threads to_join;
  {
    const std::lock_guard lock(core->mutex);
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
  unrun.clear();
  if (!is_own_thread) {
    joining.lock();
    const std::lock_guard lock(core->mutex);
    to_join.swap(core->leavers);
    to_join.splice(to_join.end(), core->ended);
  }
  JoinAll(to_join);
  return was_running;
}

void CMessageLoopDyThreadPool::Reopen() {
  Core& core = *core_;
  const std::lock_guard lock(core.mutex);
  if (core.state != Core::State::kStopped) return;
  core.state = Core::State::kNew;
  ++core.generation;
  core.idle = 0;
  core.is_one_coming = false;
}

bool CMessageLoopDyThreadPool::PostTask(CTask* task) {
  std::unique_ptr<CTask> owned(task);
  if (!owned) return false;
  Core& core = *core_;
  auto called = Core::Called::kEnough;
  {
    const std::lock_guard lock(core.mutex);
    if (core.state == Core::State::kStopped) return false;
    core.queue.push_back(std::move(owned));
    called = core.CallAnother();
    if (called != Core::Called::kEnough && core.members.empty()) {
      owned = std::move(core.queue.back());
      core.queue.pop_back();
    }
  }
  if (owned) {
    TOLM_LOG(kLogLevelError, "TolmBase", "The pool %s has no thread for a task and can make none",
             core.name.c_str());
  } else if (called == Core::Called::kNewlyShort) {
    core.WarnOfShortage();
  }
  return owned == nullptr;
}

std::size_t CMessageLoopDyThreadPool::ThreadCount() const {
  const std::lock_guard lock(core_->mutex);
  return core_->alive;
}

std::size_t CMessageLoopDyThreadPool::QueuedCount() const {
  const std::lock_guard lock(core_->mutex);
  return core_->queue.size();
}

}  // namespace Tolm::Base
