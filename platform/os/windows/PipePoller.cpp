#include "PipePoller.h"

#include <atomic>
#include <utility>

namespace os {
namespace {

constexpr std::uint64_t kWakeKey = 0;  // no handle has it
// Threads that may run at the same time: as many as there are, since their callbacks may compute for long.
constexpr DWORD kConcurrency = 0x7FFF;
// How long the end of cancelled operations is waited for.
constexpr DWORD kPatienceMs = 1000;

PipeSource& SourceOf(Pollable& pollable) {
  return *reinterpret_cast<PipeSource*>(pollable.native());
}

class PipePoller final : public Poller {
 public:
  explicit PipePoller(std::shared_ptr<Port> port) : port_(std::move(port)) {}

  bool Arm(Pollable& source, std::uint64_t token, unsigned interest) override {
    return SourceOf(source).Arm(port_, token, interest);
  }
  void Remove(Pollable& source) override { SourceOf(source).Disarm(); }
  std::optional<Readiness> Wait(int timeout_ms) override { return port_->Wait(timeout_ms); }
  void Wake(unsigned threads) override { port_->Wake(threads); }

 private:
  const std::shared_ptr<Port> port_;
};

}  // namespace

std::shared_ptr<Port> Port::Make() {
  Handle port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, kConcurrency));
  return port ? std::shared_ptr<Port>(new Port(std::move(port))) : nullptr;
}

// Nobody waits here any more, so the packets of what was cancelled are taken by this thread.
Port::~Port() {
  const ULONGLONG begin = ::GetTickCount64();
  while (!kept_.empty() && ::GetTickCount64() - begin < kPatienceMs) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* ended = nullptr;
    ::GetQueuedCompletionStatus(port_.get(), &bytes, &key, &ended, kPatienceMs);
    if (ended != nullptr) Release(key, ended);
  }
  // Memory that the system has not given back must not become anybody else's.
  for (auto& [known_by, kept] : kept_) static_cast<void>(kept.operation.release());
}

std::uint64_t Port::NewKey() {
  static std::atomic<std::uint64_t> last{kWakeKey};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool Port::Watch(const std::shared_ptr<Port>& self, PipeEnd& end, std::shared_ptr<PipeSource> source) {
  if (end.port == nullptr) {
    // An end that was shut down already has only its end to report.
    if (end.handle) {
      if (::CreateIoCompletionPort(end.handle.get(), port_.get(), end.key, 0) == nullptr) return false;
      // What is done at once needs no packet. Where the system does not know this, a packet comes too many.
      ::SetFileCompletionNotificationModes(
          end.handle.get(), FILE_SKIP_COMPLETION_PORT_ON_SUCCESS | FILE_SKIP_SET_EVENT_ON_HANDLE);
    }
    end.port = self;
  }
  if (end.port != self) return false;
  const MutexLock lock(mutex_);
  sources_[end.key] = std::move(source);
  return true;
}

void Port::Forget(std::uint64_t key) {
  std::shared_ptr<PipeSource> source;  // perhaps the last who held it: destroyed unlocked
  const MutexLock lock(mutex_);
  const auto found = sources_.find(key);
  if (found == sources_.end()) return;
  source = std::move(found->second);
  sources_.erase(found);
}

void Port::Hint(std::uint64_t key) {
  ::PostQueuedCompletionStatus(port_.get(), 0, key, nullptr);
}

void Port::Keep(std::uint64_t key, std::unique_ptr<PipeOperation> operation) {
  const MutexLock lock(mutex_);
  const OVERLAPPED* const known_by = &operation->overlapped;
  kept_[known_by] = {key, std::move(operation)};
}

std::optional<Readiness> Port::Wait(int timeout_ms) {
  const ULONGLONG begin = ::GetTickCount64();
  for (;;) {
    DWORD timeout = INFINITE;
    if (timeout_ms >= 0) {
      const ULONGLONG passed = ::GetTickCount64() - begin;
      timeout = passed < static_cast<ULONGLONG>(timeout_ms)
                    ? static_cast<DWORD>(static_cast<ULONGLONG>(timeout_ms) - passed)
                    : 0;
    }
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    // An operation that failed is a packet like others; without any, `overlapped` is null as well.
    if (!::GetQueuedCompletionStatus(port_.get(), &bytes, &key, &overlapped, timeout) &&
        overlapped == nullptr) {
      return std::nullopt;
    }
    if (key == kWakeKey) return std::nullopt;
    if (auto ready = Look(key, overlapped)) return ready;
  }
}

std::optional<Readiness> Port::Look(std::uint64_t key, const OVERLAPPED* ended) {
  std::shared_ptr<PipeSource> source;
  {
    const MutexLock lock(mutex_);
    if (const auto found = sources_.find(key); found != sources_.end()) source = found->second;
  }
  const auto ready = source ? source->Take(ended) : std::nullopt;
  // Afterwards, since until then the source may have handed it over.
  if (ended != nullptr) Release(key, ended);
  return ready;
}

void Port::Release(std::uint64_t key, const OVERLAPPED* ended) {
  Kept kept;  // goes unlocked
  const MutexLock lock(mutex_);
  const auto found = kept_.find(ended);
  if (found == kept_.end() || found->second.key != key) return;
  kept = std::move(found->second);
  kept_.erase(found);
}

void Port::Wake(unsigned threads) {
  for (unsigned i = 0; i < threads; ++i) Hint(kWakeKey);
}

std::unique_ptr<Poller> CreatePipePoller() {
  auto port = Port::Make();
  return port ? std::make_unique<PipePoller>(std::move(port)) : nullptr;
}

}  // namespace os
