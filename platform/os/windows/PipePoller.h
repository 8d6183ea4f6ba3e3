#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Handle.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"

namespace os {

class Port;

/// What the packets of a completion port are about. A packet is a hint: it says where to look, and what there
/// is to see stands in the operation itself. So it does no harm when one comes too late, or when a waiting
/// sender has seen the end of an operation before the thread that the packet wakes.
class PipeSource {
 public:
  /// As Poller::Arm. The caller keeps the source alive until Disarm.
  virtual bool Arm(const std::shared_ptr<Port>& port, std::uint64_t token, unsigned interest) = 0;
  virtual void Disarm() = 0;
  /// Looks: the readiness that was asked for, once. `ended` is the operation that the packet belongs to, for
  /// comparing only, or null.
  virtual std::optional<Readiness> Take(const OVERLAPPED* ended) = 0;

 protected:
  ~PipeSource() = default;
};

/// An operation with the memory that the system uses as long as it is under way.
struct PipeOperation {
  OVERLAPPED overlapped{};
  std::unique_ptr<char[]> memory{};

  bool IsCompleted() const { return HasOverlappedIoCompleted(&overlapped); }
};

/// One pipe handle, known by its key for as long as it exists: a handle is bound to a port for good.
struct PipeEnd {
  Handle handle;
  std::uint64_t key = 0;
  std::shared_ptr<Port> port;  ///< null until it is watched for the first time
};

/// A completion port, and who its packets are for.
class Port {
 public:
  /// Null when the system has no room for one.
  static std::shared_ptr<Port> Make();
  ~Port();
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  static std::uint64_t NewKey();

  /// Binds `end` unless it is bound to this port already, and sends its hints to `source`.
  bool Watch(const std::shared_ptr<Port>& self, PipeEnd& end, std::shared_ptr<PipeSource> source);
  void Forget(std::uint64_t key);
  /// A thread in Wait is to look at the source with this key.
  void Hint(std::uint64_t key);
  /// Holds an operation of the handle `key` until its packet has come: until then the system may use its
  /// memory, and nothing else may have the same address.
  void Keep(std::uint64_t key, std::unique_ptr<PipeOperation> operation);

  std::optional<Readiness> Wait(int timeout_ms);
  void Wake(unsigned threads);

 private:
  struct Kept {
    std::uint64_t key = 0;
    std::unique_ptr<PipeOperation> operation;
  };

  explicit Port(Handle port) : port_(std::move(port)) {}
  std::optional<Readiness> Look(std::uint64_t key, const OVERLAPPED* ended);
  void Release(std::uint64_t key, const OVERLAPPED* ended);

  const Handle port_;
  Mutex mutex_;
  std::unordered_map<std::uint64_t, std::shared_ptr<PipeSource>> sources_ TOLM_GUARDED_BY(mutex_);
  std::unordered_map<const OVERLAPPED*, Kept> kept_ TOLM_GUARDED_BY(mutex_);
};

std::unique_ptr<Poller> CreatePipePoller();

}  // namespace os
