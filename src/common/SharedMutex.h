#pragma once

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "os/ThreadSafety.h"

namespace TolmLPCFrame {

/// A readers-writer mutex, with what clang has to know of it to check that nothing is used without its lock
/// (os/ThreadSafety.h). Not the standard library's: with MinGW that one never gives back the two semaphores
/// that it took.
class TOLM_CAPABILITY("mutex") SharedMutex {
 public:
  boost::shared_mutex& native() { return mutex_; }

 private:
  boost::shared_mutex mutex_;
};

/// Held by one thread, for as long as this lives.
class TOLM_SCOPED_CAPABILITY ExclusiveLock {
 public:
  explicit ExclusiveLock(SharedMutex& mutex) TOLM_ACQUIRE(mutex) : lock_(mutex.native()) {}
  ~ExclusiveLock() TOLM_RELEASE() = default;
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;

 private:
  const boost::unique_lock<boost::shared_mutex> lock_;
};

/// Held by all that only read.
class TOLM_SCOPED_CAPABILITY SharedLock {
 public:
  explicit SharedLock(SharedMutex& mutex) TOLM_ACQUIRE_SHARED(mutex) : lock_(mutex.native()) {}
  ~SharedLock() TOLM_RELEASE() = default;
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;

 private:
  const boost::shared_lock<boost::shared_mutex> lock_;
};

}  // namespace TolmLPCFrame
