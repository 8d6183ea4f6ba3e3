#pragma once

// A value for each thread. As thread_local, but that its destructor runs before its memory is freed on every
// system: GCC for MinGW frees the memory of thread_local objects first (its bug 83562), so these are used for
// plain values only.

#include <memory>
#include <new>

namespace os {

/// Whether the process is ending in a way that has ended its other threads wherever they were. What they were
/// working on, locks above all, is then not to be touched any more.
bool AreOtherThreadsGone();

/// A pointer for each thread, null at first, given to `destroy` when the thread ends unless it is null then.
/// The slot itself lasts as long as the process. Throws std::system_error when the system has none left.
class ThreadSlot {
 public:
  using Destroy = void (*)(void*);
  explicit ThreadSlot(Destroy destroy);
  void* Get() const;
  /// False when there is no memory for it.
  bool Set(void* value) const;

 private:
  unsigned long slot_;
};

/// For objects with static lifetime that are never destroyed. T is made on its first use by a thread, with
/// its default constructor, and destroyed when that thread ends, unless AreOtherThreadsGone.
template <typename T>
class PerThread {
 public:
  PerThread()
      : slot_([](void* value) {
          if (!AreOtherThreadsGone()) delete static_cast<T*>(value);
        }) {}
  PerThread(const PerThread&) = delete;
  PerThread& operator=(const PerThread&) = delete;

  T& Get() {
    if (void* const value = slot_.Get()) return *static_cast<T*>(value);
    auto made = std::make_unique<T>();
    if (!slot_.Set(made.get())) throw std::bad_alloc();
    return *made.release();
  }

 private:
  ThreadSlot slot_;
};

}  // namespace os
