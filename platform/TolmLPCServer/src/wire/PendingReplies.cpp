#include "wire/PendingReplies.h"

#include <cassert>
#include <utility>

#include "TolmLPCServer/LpcError.h"
#include "os/PerThread.h"

namespace lpc::wire {

int Waiter::WaitUntil(std::chrono::steady_clock::time_point deadline) {
  os::UniqueLock lock(mutex_);
  if (!done_.wait_until(lock, deadline, [this]() TOLM_REQUIRES(mutex_) { return is_done_; })) return kTimeOut;
  return error_;
}

int Waiter::Wait() {
  os::UniqueLock lock(mutex_);
  done_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return is_done_; });
  return error_;
}

void Waiter::Complete(InboundMessage&& reply) {
  {
    const os::MutexLock lock(mutex_);
    reply_ = std::move(reply);
    is_done_ = true;
  }
  done_.notify_one();
}

void Waiter::Fail(int error) {
  {
    const os::MutexLock lock(mutex_);
    error_ = error;
    is_done_ = true;
  }
  done_.notify_one();
}

bool Waiter::IsDone() const {
  const os::MutexLock lock(mutex_);
  return is_done_;
}

std::shared_ptr<Waiter> Waiter::ForThisThread() {
  static auto& of_each_thread = *new os::PerThread<std::shared_ptr<Waiter>>;
  std::shared_ptr<Waiter>& kept = of_each_thread.Get();
  // Somebody who completed it late may hold it still; it is theirs then.
  if (!kept || kept.use_count() != 1) kept = std::make_shared<Waiter>();
  const os::MutexLock lock(kept->mutex_);
  kept->is_done_ = false;
  kept->error_ = kOk;
  kept->reply_ = {};
  return kept;
}

PendingReplies::~PendingReplies() {
  assert(waiters_.empty());
}

bool PendingReplies::Add(std::uint64_t id, std::shared_ptr<Waiter> waiter) {
  const os::MutexLock lock(mutex_);
  if (closed_) return false;
  waiters_.emplace(id, std::move(waiter));
  return true;
}

std::shared_ptr<Waiter> PendingReplies::Take(std::uint64_t id) {
  const os::MutexLock lock(mutex_);
  const auto found = waiters_.find(id);
  if (found == waiters_.end()) return nullptr;
  auto waiter = std::move(found->second);
  waiters_.erase(found);
  return waiter;
}

bool PendingReplies::Remove(std::uint64_t id) {
  return Take(id) != nullptr;
}

bool PendingReplies::Complete(InboundMessage&& reply) {
  const auto waiter = Take(reply.id);
  if (waiter) waiter->Complete(std::move(reply));
  return waiter != nullptr;
}

bool PendingReplies::Fail(std::uint64_t id, int error) {
  const auto waiter = Take(id);
  if (waiter) waiter->Fail(error);
  return waiter != nullptr;
}

void PendingReplies::FailAll(int error) {
  std::unordered_map<std::uint64_t, std::shared_ptr<Waiter>> failed;
  {
    const os::MutexLock lock(mutex_);
    closed_ = true;
    failed.swap(waiters_);
  }
  for (const auto& [id, waiter] : failed) waiter->Fail(error);
}

bool PendingReplies::empty() const {
  const os::MutexLock lock(mutex_);
  return waiters_.empty();
}

}  // namespace lpc::wire
