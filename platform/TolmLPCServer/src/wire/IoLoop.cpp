#include "wire/IoLoop.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/TaskThread.h"
#include "os/LargeBlocks.h"
#include "os/ThreadName.h"

namespace lpc::wire {
namespace {

constexpr char kTag[] = "TolmLPCServer";
constexpr auto kLookInterval = std::chrono::milliseconds(4);
// After so many looks at an empty queue nobody looks any more.
constexpr int kQuietLooks = 4;
// Threads that are kept once they were needed; more end when they are not needed any more.
constexpr std::size_t kKeptThreads = 8;
// When so many run tasks of pools, these are long ones, and the pools' own threads had better do so.
constexpr std::size_t kMostAbsent = 4;
// When there was no memory for it.
constexpr auto kHousekeepingAgain = std::chrono::milliseconds(100);
// So long a message may wait for others to be written with it.
constexpr auto kFlushDelay = std::chrono::microseconds(100);

thread_local const IoLoop* own_loop = nullptr;
thread_local bool in_callback = false;
thread_local bool more_follows = false;

int MillisecondsUntil(IoLoop::Clock::time_point deadline, IoLoop::Clock::time_point now) {
  constexpr std::int64_t kLongest = 60'000;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongest));
}

}  // namespace

IoLoop::IoLoop(std::unique_ptr<os::Poller> poller, const Options& options, const char* thread_name,
               Housekeeping housekeeping)
    : poller_(std::move(poller)),
      options_(options),
      thread_name_(thread_name),
      housekeeping_(std::move(housekeeping)) {}

IoLoop::~IoLoop() = default;

bool IoLoop::IsOwnThread() const {
  return own_loop == this;
}

bool IoLoop::Start() {
  os::ExpectLargeBlocks();  // bodies
  const os::MutexLock lock(mutex_);
  if (stopping_) return false;  // nobody would join them
  for (int i = 0; i < std::max(2, options_.min_threads); ++i) {
    if (!StartThreadLocked()) break;
  }
  return threads_ > 0;
}

bool IoLoop::StartThreadLocked() {
  JoinEndedLocked();
  try {
    // The thread keeps the loop alive: it may outlast a Stop that was called on it.
    handles_.emplace_back([self = shared_from_this()] { self->ThreadMain(); });
  } catch (const std::exception&) {
    return false;  // nothing is lost: the others do its work
  }
  ++threads_;
  ++free_;
  return true;
}

// These threads have done everything that needs the lock, so joining them takes no time.
void IoLoop::JoinEndedLocked() {
  for (std::thread& thread : ended_) thread.join();
  ended_.clear();
}

void IoLoop::Stop() {
  WorkList dropped;
  os::UniqueLock lock(mutex_);
  stopping_ = true;
  dropped.swap(queue_);
  lock.unlock();
  dropped.clear();
  lock.lock();
  const bool own = IsOwnThread();
  if (own) {
    ++stoppers_;
    thread_ended_.notify_all();
  }
  poller_->Wake(static_cast<unsigned>(threads_));
  // From outside also for those inside Stop: their callbacks are about to go on.
  thread_ended_.wait(lock, [this, own]() TOLM_REQUIRES(mutex_) { return threads_ == (own ? stoppers_ : 0); });
  if (own) --stoppers_;
  JoinEndedLocked();
  // What is left is inside Stop itself, and ends when its callback does.
  for (std::thread& thread : handles_) thread.detach();
  handles_.clear();
}

std::uint64_t IoLoop::Register(std::weak_ptr<IoHandler> handler) {
  const os::MutexLock lock(mutex_);
  handlers_.emplace(++last_token_, std::move(handler));
  return last_token_;
}

void IoLoop::Unregister(os::Pollable& source, std::uint64_t token) {
  poller_->Remove(source);
  const os::MutexLock lock(mutex_);
  handlers_.erase(token);
}

bool IoLoop::LetGo() {
  const os::MutexLock lock(mutex_);
  if (free_ <= 1) return false;
  --free_;
  ++absent_;
  EnsureTimekeeperLocked();
  return true;
}

IoLoop::Absence::Absence(IoLoop& loop) : loop_(loop), granted_(loop.LetGo()) {}

IoLoop::Absence::~Absence() {
  if (!granted_) return;
  const os::MutexLock lock(loop_.mutex_);
  ++loop_.free_;
  --loop_.absent_;
}

// A thread of the loop that is not in a callback looks at the queue before it waits.
bool IoLoop::TakesWorkNext() const {
  return IsOwnThread() && !in_callback;
}

void IoLoop::Post(Work work) {
  WorkList one;
  one.push_back(std::move(work));
  Post(one);
}

void IoLoop::Post(WorkList& work) noexcept {
  if (work.empty()) return;
  const os::MutexLock lock(mutex_);
  if (stopping_) return;
  queue_.splice(queue_.end(), work);
  if (!TakesWorkNext()) poller_->Wake(1);
}

bool IoLoop::MoreFollows() const {
  return more_follows && own_loop == this;
}

void IoLoop::FlushSoon(std::weak_ptr<IoHandler> handler) {
  const os::MutexLock lock(mutex_);
  to_flush_.push_back(std::move(handler));
  if (to_flush_.size() > 1) return;
  flush_at_ = Clock::now() + kFlushDelay;  // the timer ends behind it, never before
  poller_->WakeIn(kFlushDelay);
}

void IoLoop::FlushAllLocked() {
  std::vector<std::weak_ptr<IoHandler>> due;
  due.swap(to_flush_);
  const os::MutexUnlock unlocked(mutex_);
  for (const auto& waiting : due) {
    if (const auto handler = waiting.lock()) handler->OnFlush();
  }
  due.clear();  // perhaps the last who held one
}

void IoLoop::RunHousekeepingBy(Clock::time_point deadline) {
  const os::MutexLock lock(mutex_);
  if (deadline >= next_housekeeping_) return;
  next_housekeeping_ = deadline;
  EnsureTimekeeperLocked();
}

std::size_t IoLoop::ThreadCount() const {
  const os::MutexLock lock(mutex_);
  return threads_;
}

// A look at a queue that only one thread works on.
void IoLoop::LookWhetherStuckLocked(Clock::time_point now) {
  if (!watching_ || now < next_look_) return;
  next_look_ = now + kLookInterval;
  if (queue_.empty()) {
    stuck_ = false;
    if (++quiet_looks_ >= kQuietLooks) watching_ = false;
  } else {
    quiet_looks_ = 0;
    if (taken_ == taken_at_last_look_) stuck_ = true;
  }
  taken_at_last_look_ = taken_;
}

void IoLoop::WatchLocked() {
  if (watching_) return;
  watching_ = true;
  quiet_looks_ = 0;
  taken_at_last_look_ = taken_;
  next_look_ = Clock::now() + kLookInterval;
}

IoLoop::Clock::time_point IoLoop::NextDeadlineLocked() const {
  return watching_ ? std::min(next_housekeeping_, next_look_) : next_housekeeping_;
}

// For a thread that is about to be busy: somebody else has to look at the clock.
void IoLoop::EnsureTimekeeperLocked() {
  if (NextDeadlineLocked() < timekeeper_until_) poller_->Wake(1);
}

// Called by a thread that is counted as free.
IoLoop::Work IoLoop::TakeWorkLocked() {
  if (queue_.empty()) return nullptr;
  if (free_ <= 1) {
    // The last one that is not in a callback: it stays, unless somebody can take its place.
    // Who is absent may stay so for longer than anybody should wait.
    const std::size_t present = threads_ - absent_;
    const bool may_start = stuck_ || present == 1;
    const bool started = may_start && present < static_cast<std::size_t>(std::max(2, options_.max_threads)) &&
                         StartThreadLocked();
    if (!started) {
      WatchLocked();
      return nullptr;
    }
  }
  Work work = std::move(queue_.front());
  queue_.pop_front();
  ++taken_;
  --free_;
  more_follows = !queue_.empty();
  if (!queue_.empty()) {
    WatchLocked();
    if (stuck_) poller_->Wake(1);
  }
  EnsureTimekeeperLocked();
  return work;
}

void IoLoop::RunHousekeepingLocked() {
  housekeeping_runs_ = true;
  next_housekeeping_ = Clock::time_point::max();
  Clock::time_point next = Clock::time_point::max();
  {
    const os::MutexUnlock unlocked(mutex_);
    try {
      next = housekeeping_(Clock::now());
    } catch (const std::exception& error) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "looking after the connections failed: %s", error.what());
      next = Clock::now() + kHousekeepingAgain;
    }
  }
  housekeeping_runs_ = false;
  // It may have been asked for meanwhile.
  next_housekeeping_ = std::min(next_housekeeping_, next);
}

// One of the loop's threads, as a thread that may run a pool's task behind a callback.
class IoLoop::Member final : public Tolm::Base::CTaskThread {
 public:
  explicit Member(IoLoop& loop) : loop_(loop) {}
  using CTaskThread::RunFollowers;

 private:
  bool MayLeave() override {
    const os::MutexLock lock(loop_.mutex_);
    return loop_.queue_.empty() && loop_.absent_ < kMostAbsent && !loop_.stopping_;
  }
  void Leave() override {
    const os::MutexLock lock(loop_.mutex_);
    ++loop_.absent_;
  }
  void ComeBack() override {
    const os::MutexLock lock(loop_.mutex_);
    --loop_.absent_;
  }

  IoLoop& loop_;
};

void IoLoop::ThreadMain() {
  os::SetThreadName(thread_name_.c_str());
  own_loop = this;
  Member self(*this);
  bool has_worked = false;
  os::UniqueLock lock(mutex_);
  while (!stopping_) {
    const Clock::time_point now = Clock::now();
    if (!housekeeping_runs_ && now >= next_housekeeping_) {
      RunHousekeepingLocked();
      continue;
    }
    LookWhetherStuckLocked(now);
    if (Work work = TakeWorkLocked()) {
      lock.unlock();
      in_callback = true;
      try {
        work->Run();
      } catch (const std::exception& error) {
        TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "a callback failed: %s", error.what());
      } catch (...) {
        TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "a callback failed");
      }
      work.reset();
      self.RunFollowers();
      in_callback = false;
      more_follows = false;
      has_worked = true;
      lock.lock();
      ++free_;
      if (free_ > kKeptThreads && free_ > static_cast<std::size_t>(options_.min_threads)) break;
      continue;
    }
    if (!to_flush_.empty() && (std::exchange(has_worked, false) || now >= flush_at_)) {
      FlushAllLocked();
      continue;
    }
    // One thread waits until the next deadline, the others for as long as it takes.
    const Clock::time_point deadline = NextDeadlineLocked();
    const bool timekeeper = deadline < timekeeper_until_;
    if (timekeeper) timekeeper_until_ = deadline;
    lock.unlock();
    const auto ready = poller_->Wait(timekeeper ? MillisecondsUntil(deadline, now) : -1);
    lock.lock();
    if (timekeeper && timekeeper_until_ == deadline) timekeeper_until_ = Clock::time_point::max();
    if (!ready) continue;
    const auto found = handlers_.find(ready->token);
    auto handler = found == handlers_.end() ? nullptr : found->second.lock();
    if (!handler) continue;
    lock.unlock();
    try {
      handler->OnReady(ready->readable, ready->writable);
    } catch (const std::exception& error) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "a connection could not be served: %s", error.what());
    }
    handler.reset();  // perhaps the last one who held it
    lock.lock();
  }
  --free_;
  --threads_;
  const auto own = std::find_if(handles_.begin(), handles_.end(), [](const std::thread& thread) {
    return thread.get_id() == std::this_thread::get_id();
  });
  if (own != handles_.end()) ended_.splice(ended_.end(), handles_, own);
  thread_ended_.notify_all();
}

}  // namespace lpc::wire
