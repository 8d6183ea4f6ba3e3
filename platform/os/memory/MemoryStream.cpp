// The transport within one process: pipes of bytes, and a poller that is a list of what is ready.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <utility>
#include <vector>

#include "os/LocalStream.h"
#include "os/Mutex.h"

namespace os {
namespace {

// Everything of one transport is guarded by one mutex: this is for tests, where plain beats fast.
struct World {
  Mutex mutex;
  Condition changed;
  std::map<std::string, std::list<std::unique_ptr<Stream>>*> listeners TOLM_GUARDED_BY(mutex);
};

struct Pipe {
  std::deque<char> bytes;
  bool closed = false;
};

// What a poller asks of its sources, with World::mutex held.
class Source {
 public:
  virtual ~Source() = default;
  virtual bool ReadableLocked() const = 0;
  virtual bool WritableLocked() const = 0;
  virtual bool EndedLocked() const = 0;
};

class MemoryStream final : public Stream, public Source {
 public:
  MemoryStream(std::shared_ptr<World> world, std::shared_ptr<Pipe> in, std::shared_ptr<Pipe> out,
               std::size_t capacity)
      : Stream(reinterpret_cast<std::intptr_t>(static_cast<Source*>(this))),
        world_(std::move(world)),
        in_(std::move(in)),
        out_(std::move(out)),
        capacity_(capacity) {}
  ~MemoryStream() override { Shutdown(); }

  IoResult Read(const MutableBuffer* buffers, std::size_t count) override {
    const MutexLock lock(world_->mutex);
    std::size_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t part = std::min(buffers[i].size, in_->bytes.size());
      const auto end = in_->bytes.begin() + static_cast<std::ptrdiff_t>(part);
      std::copy(in_->bytes.begin(), end, static_cast<char*>(buffers[i].data));
      in_->bytes.erase(in_->bytes.begin(), end);
      total += part;
    }
    world_->changed.notify_all();
    if (total > 0) return {IoStatus::kDone, total};
    return {in_->closed ? IoStatus::kClosed : IoStatus::kWouldBlock};
  }

  IoResult Write(const ConstBuffer* buffers, std::size_t count) override {
    const MutexLock lock(world_->mutex);
    if (out_->closed) return {IoStatus::kClosed};
    std::size_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t part = std::min(buffers[i].size, capacity_ - out_->bytes.size());
      const char* data = static_cast<const char*>(buffers[i].data);
      out_->bytes.insert(out_->bytes.end(), data, data + part);
      total += part;
    }
    world_->changed.notify_all();
    return total > 0 ? IoResult{IoStatus::kDone, total} : IoResult{IoStatus::kWouldBlock};
  }

  StreamState Wait(bool /*for_room*/, int timeout_ms) override {
    UniqueLock lock(world_->mutex);
    return {world_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                     [this]() TOLM_REQUIRES(world_->mutex) { return ReadableLocked(); }),
            false};
  }

  void Shutdown() noexcept override {
    const MutexLock lock(world_->mutex);
    in_->closed = true;
    out_->closed = true;
    world_->changed.notify_all();
  }

  PeerIdentity Peer() const override { return {true, 0}; }

  bool ReadableLocked() const override TOLM_REQUIRES(world_->mutex) {
    return !in_->bytes.empty() || in_->closed;
  }
  bool WritableLocked() const override TOLM_REQUIRES(world_->mutex) {
    return out_->bytes.size() < capacity_ || out_->closed;
  }
  bool EndedLocked() const override TOLM_REQUIRES(world_->mutex) { return in_->closed; }

 private:
  const std::shared_ptr<World> world_;
  // What these point to, above all.
  const std::shared_ptr<Pipe> in_ TOLM_GUARDED_BY(world_->mutex);
  const std::shared_ptr<Pipe> out_ TOLM_GUARDED_BY(world_->mutex);
  const std::size_t capacity_;
};

class MemoryListener final : public Listener, public Source {
 public:
  MemoryListener(std::shared_ptr<World> world, std::string name)
      : Listener(reinterpret_cast<std::intptr_t>(static_cast<Source*>(this))),
        world_(std::move(world)),
        name_(std::move(name)) {}

  ~MemoryListener() override {
    std::list<std::unique_ptr<Stream>> dropped;  // destroyed unlocked
    const MutexLock lock(world_->mutex);
    const auto own = world_->listeners.find(name_);
    if (own != world_->listeners.end() && own->second == &waiting_) world_->listeners.erase(own);
    dropped.swap(waiting_);
  }

  Accepted Accept() override {
    const MutexLock lock(world_->mutex);
    if (waiting_.empty()) return {};
    Accepted accepted{std::move(waiting_.front()), IoStatus::kDone, false, 0};
    waiting_.pop_front();
    return accepted;
  }

  bool ReadableLocked() const override TOLM_REQUIRES(world_->mutex) { return !waiting_.empty(); }
  bool WritableLocked() const override { return false; }
  bool EndedLocked() const override { return false; }

  /// To be used under the lock.
  std::list<std::unique_ptr<Stream>>* waiting() { return &waiting_; }

 private:
  const std::shared_ptr<World> world_;
  const std::string name_;
  std::list<std::unique_ptr<Stream>> waiting_ TOLM_GUARDED_BY(world_->mutex);
};

class MemoryPoller final : public Poller {
 public:
  explicit MemoryPoller(std::shared_ptr<World> world) : world_(std::move(world)) {}

  bool Arm(Pollable& source, std::uint64_t token, unsigned interest) override {
    const MutexLock lock(world_->mutex);
    armed_[reinterpret_cast<Source*>(source.native())] = {token, interest};
    world_->changed.notify_all();
    return true;
  }

  void Remove(Pollable& source) override {
    const MutexLock lock(world_->mutex);
    armed_.erase(reinterpret_cast<Source*>(source.native()));
  }

  std::optional<Readiness> Wait(int timeout_ms) override {
    UniqueLock lock(world_->mutex);
    std::optional<Readiness> ready;
    const auto done = [&]() TOLM_REQUIRES(world_->mutex) {
      return wakes_ > 0 || (ready = TakeReadyLocked()).has_value();
    };
    if (timeout_ms < 0) {
      world_->changed.wait(lock, done);
    } else {
      world_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), done);
    }
    if (!ready && wakes_ > 0) --wakes_;
    return ready;
  }

  void Wake(unsigned threads) override {
    const MutexLock lock(world_->mutex);
    wakes_ += threads;
    world_->changed.notify_all();
  }

 private:
  struct Interest {
    std::uint64_t token;
    unsigned interest;
  };

  std::optional<Readiness> TakeReadyLocked() TOLM_REQUIRES(world_->mutex) {
    for (auto entry = armed_.begin(); entry != armed_.end(); ++entry) {
      const auto [source, asked] = *entry;
      const bool readable =
          source->EndedLocked() || ((asked.interest & kRead) != 0 && source->ReadableLocked());
      const bool writable = (asked.interest & kWrite) != 0 && source->WritableLocked();
      if (!readable && !writable) continue;
      armed_.erase(entry);
      return Readiness{asked.token, readable, writable};
    }
    return std::nullopt;
  }

  const std::shared_ptr<World> world_;
  std::map<Source*, Interest> armed_ TOLM_GUARDED_BY(world_->mutex);
  unsigned wakes_ TOLM_GUARDED_BY(world_->mutex) = 0;
};

class MemoryTransport final : public LocalTransport {
 public:
  explicit MemoryTransport(std::size_t capacity) : capacity_(capacity) {}

  EndpointResult<Listener> Listen(const std::string& name) override {
    if (!IsEndpointName(name)) return {nullptr, EndpointError::kNameInvalid, "no endpoint name: " + name};
    auto listener = std::make_unique<MemoryListener>(world_, name);  // locks it when it goes
    const MutexLock lock(world_->mutex);
    if (!world_->listeners.emplace(name, listener->waiting()).second) {
      return {nullptr, EndpointError::kInUse, name + " is in use"};
    }
    return {std::move(listener), EndpointError::kNone, {}};
  }

  EndpointResult<Stream> Connect(const std::string& name) override {
    if (!IsEndpointName(name)) return {nullptr, EndpointError::kNameInvalid, "no endpoint name: " + name};
    auto there = std::make_shared<Pipe>();
    auto back = std::make_shared<Pipe>();
    auto near = std::make_unique<MemoryStream>(world_, back, there, capacity_);
    std::list<std::unique_ptr<Stream>> far;
    far.push_back(std::make_unique<MemoryStream>(world_, there, back, capacity_));
    UniqueLock lock(world_->mutex);
    const auto listener = world_->listeners.find(name);
    if (listener == world_->listeners.end()) {
      lock.unlock();  // both ends lock it when they go
      return {nullptr, EndpointError::kNobodyListens, "nobody listens as " + name};
    }
    listener->second->splice(listener->second->end(), far);
    world_->changed.notify_all();
    return {std::move(near), EndpointError::kNone, {}};
  }

  std::unique_ptr<Poller> CreatePoller() override { return std::make_unique<MemoryPoller>(world_); }

 private:
  const std::shared_ptr<World> world_ = std::make_shared<World>();
  const std::size_t capacity_;
};

}  // namespace

std::unique_ptr<LocalTransport> CreateMemoryTransport(std::size_t capacity) {
  return std::make_unique<MemoryTransport>(capacity);
}

}  // namespace os
