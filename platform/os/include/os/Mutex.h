#pragma once

// The standard library's locks under the same names, with what clang has to know of them to check that
// nothing is used without its lock (os/ThreadSafety.h). They cost nothing: every function is the library's
// own.

#include <condition_variable>
#include <mutex>

#include "os/ThreadSafety.h"

namespace os {

class TOLM_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TOLM_ACQUIRE() { mutex_.lock(); }
  void unlock() TOLM_RELEASE() { mutex_.unlock(); }
  bool try_lock() TOLM_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  /// For what takes the library's own. Whoever locks it goes unchecked.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

/// As std::lock_guard.
class TOLM_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TOLM_ACQUIRE(mutex) : lock_(mutex.native()) {}
  ~MutexLock() TOLM_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  const std::lock_guard<std::mutex> lock_;
};

/// As std::unique_lock: may be unlocked and locked again, and waits for conditions.
class TOLM_SCOPED_CAPABILITY UniqueLock {
 public:
  explicit UniqueLock(Mutex& mutex) TOLM_ACQUIRE(mutex) : lock_(mutex.native()) {}
  ~UniqueLock() TOLM_RELEASE() = default;
  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  void lock() TOLM_ACQUIRE() { lock_.lock(); }
  void unlock() TOLM_RELEASE() { lock_.unlock(); }
  bool owns_lock() const { return lock_.owns_lock(); }

  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

/// The other way round: unlocks a mutex that its function was called with, for as long as it lives.
class TOLM_SCOPED_CAPABILITY MutexUnlock {
 public:
  explicit MutexUnlock(Mutex& mutex) TOLM_RELEASE(mutex) : mutex_(mutex) { mutex_.native().unlock(); }
  ~MutexUnlock() TOLM_RELEASE() { mutex_.native().lock(); }
  MutexUnlock(const MutexUnlock&) = delete;
  MutexUnlock& operator=(const MutexUnlock&) = delete;

 private:
  Mutex& mutex_;
};

/// As std::condition_variable. To the check a wait is a place where the lock is held all along, so that what
/// was true before it need not be true behind it.
class Condition {
 public:
  void notify_one() noexcept { condition_.notify_one(); }
  void notify_all() noexcept { condition_.notify_all(); }

  void wait(UniqueLock& lock) { condition_.wait(lock.native()); }
  template <typename Predicate>
  void wait(UniqueLock& lock, Predicate predicate) {
    condition_.wait(lock.native(), predicate);
  }

  template <typename Duration, typename Predicate>
  bool wait_for(UniqueLock& lock, const Duration& duration, Predicate predicate) {
    return condition_.wait_for(lock.native(), duration, predicate);
  }

  template <typename TimePoint>
  std::cv_status wait_until(UniqueLock& lock, const TimePoint& until) {
    return condition_.wait_until(lock.native(), until);
  }
  template <typename TimePoint, typename Predicate>
  bool wait_until(UniqueLock& lock, const TimePoint& until, Predicate predicate) {
    return condition_.wait_until(lock.native(), until, predicate);
  }

 private:
  std::condition_variable condition_;
};

}  // namespace os
