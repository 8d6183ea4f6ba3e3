#pragma once

// What a lock guards, in words that clang checks: built with clang, whatever is used without its lock is an
// error (-Wthread-safety). For every other compiler these words are nothing. os/Mutex.h has the locks.
//
//   os::Mutex mutex_;
//   int count_ TOLM_GUARDED_BY(mutex_) = 0;
//   void AddLocked() TOLM_REQUIRES(mutex_) { ++count_; }
//   void Add() TOLM_EXCLUDES(mutex_);  // takes it itself
//
// A lambda is a function of its own to the check, and has to say what it requires as well, which stands
// behind its parameters: [this]() TOLM_REQUIRES(mutex_) { return count_ > 0; }

#ifdef __has_attribute
#if __has_attribute(guarded_by)
#define TOLM_THREAD_SAFETY(attribute) __attribute__((attribute))
#endif
#endif
#ifndef TOLM_THREAD_SAFETY
#define TOLM_THREAD_SAFETY(attribute)
#endif

// Of data: the mutex that has to be held to read it (also shared) and to change it; for the second, of what a
// plain pointer or a std::unique_ptr points to.
#define TOLM_GUARDED_BY(mutex) TOLM_THREAD_SAFETY(guarded_by(mutex))
#define TOLM_PT_GUARDED_BY(mutex) TOLM_THREAD_SAFETY(pt_guarded_by(mutex))

// Of functions: what their callers have to hold, and what they must not hold.
#define TOLM_REQUIRES(...) TOLM_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define TOLM_EXCLUDES(...) TOLM_THREAD_SAFETY(locks_excluded(__VA_ARGS__))

// Of functions that lock and unlock: for the locks themselves.
#define TOLM_ACQUIRE(...) TOLM_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TOLM_ACQUIRE_SHARED(...) TOLM_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define TOLM_TRY_ACQUIRE(...) TOLM_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define TOLM_RELEASE(...) TOLM_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define TOLM_RELEASE_SHARED(...) TOLM_THREAD_SAFETY(release_shared_capability(__VA_ARGS__))

// Of classes: a lock, and what holds one for as long as it lives.
#define TOLM_CAPABILITY(name) TOLM_THREAD_SAFETY(capability(name))
#define TOLM_SCOPED_CAPABILITY TOLM_THREAD_SAFETY(scoped_lockable)

// Of functions that the check cannot follow. The reason stands beside each.
#define TOLM_NO_THREAD_SAFETY_ANALYSIS TOLM_THREAD_SAFETY(no_thread_safety_analysis)
