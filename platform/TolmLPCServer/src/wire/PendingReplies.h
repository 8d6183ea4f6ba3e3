#pragma once

// The senders of one connection that wait for a reply.

#include <chrono>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "os/Mutex.h"
#include "wire/Message.h"

namespace lpc::wire {

/// One thread that waits. The thread that reads the reply fills it and wakes it directly.
class Waiter {
 public:
  /// Waits until there is a result or `deadline` has passed; kOk, the error it was failed with, or kTimeOut.
  int WaitUntil(std::chrono::steady_clock::time_point deadline);
  /// As WaitUntil, for a result that is certain to come.
  int Wait();
  void Complete(InboundMessage&& reply);
  void Fail(int error);
  bool IsDone() const;
  /// The reply, after WaitUntil gave kOk.
  InboundMessage& reply() { return reply_; }

  /// A waiter for the calling thread, ready for use. Waiters are kept and used again: whoever wakes one
  /// may still hold it when the woken thread has gone on.
  static std::shared_ptr<Waiter> ForThisThread();

 private:
  mutable os::Mutex mutex_;
  os::Condition done_;
  bool is_done_ TOLM_GUARDED_BY(mutex_) = false;
  int error_ TOLM_GUARDED_BY(mutex_) = 0;
  InboundMessage reply_;
};

/// All operations may be called from any thread.
class PendingReplies {
 public:
  PendingReplies() = default;
  ~PendingReplies();  ///< nobody may be waiting any more
  PendingReplies(const PendingReplies&) = delete;
  PendingReplies& operator=(const PendingReplies&) = delete;

  /// False after FailAll.
  bool Add(std::uint64_t id, std::shared_ptr<Waiter> waiter);
  /// False when nobody waits under this id: the result is there, or on its way.
  bool Remove(std::uint64_t id);
  /// Hands a reply to whoever waits for it; false, with `reply` untouched, when nobody does.
  bool Complete(InboundMessage&& reply);
  bool Fail(std::uint64_t id, int error);
  /// Fails everybody who waits, and every later Add.
  void FailAll(int error);
  bool empty() const;

 private:
  std::shared_ptr<Waiter> Take(std::uint64_t id) TOLM_EXCLUDES(mutex_);

  mutable os::Mutex mutex_;
  bool closed_ TOLM_GUARDED_BY(mutex_) = false;
  std::unordered_map<std::uint64_t, std::shared_ptr<Waiter>> waiters_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace lpc::wire
