#pragma once

// Byte streams between processes of one machine, and waiting for many of them with many threads.
// This header is what a system has to supply: the files below posix/ do, each to have a twin of the same
// name for another system; memory/ does the same within one process.
//
//   LocalTransport ──Listen──► Listener ──Accept──► Stream
//                  └─Connect─────────────────────► Stream
//                  └─CreatePoller──► Poller: any number of threads wait in it; each readiness goes to
//                                    one of them, and to nobody else until it is asked for again
//
// That a readiness is given out once is the contract on which the threads above rely: whoever received
// it is alone with that stream's reading end until it calls Arm again.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace os {

struct ConstBuffer {
  const void* data;
  std::size_t size;
};

struct MutableBuffer {
  void* data;
  std::size_t size;
};

enum class IoStatus {
  kDone,        ///< `bytes` were transferred, at least one
  kWouldBlock,  ///< nothing can be transferred now
  kClosed,      ///< the other side has closed, or Shutdown was called
  kFailed,      ///< the system said no; `system_error` tells why
};

struct IoResult {
  IoStatus status;
  std::size_t bytes = 0;
  int system_error = 0;
};

/// What Stream::Wait has found; neither when its time was over.
struct StreamState {
  bool readable = false;
  bool writable = false;
};

/// Who is at the other end, as the system vouches for it.
struct PeerIdentity {
  bool same_user = false;  ///< runs as the user that this process runs as
  long process_id = 0;     ///< for log lines only: it may belong to somebody else by the time it is read
};

/// What a Poller of the same transport can watch. Destroyed only after Poller::Remove.
class Pollable {
 public:
  virtual ~Pollable() = default;
  Pollable(const Pollable&) = delete;
  Pollable& operator=(const Pollable&) = delete;

  /// What the poller knows it by: a descriptor, a handle.
  std::intptr_t native() const { return native_; }

 protected:
  explicit Pollable(std::intptr_t native) : native_(native) {}

 private:
  const std::intptr_t native_;
};

/// One end of a byte stream. Read is used by one thread at a time, and so is Write; the two may run
/// side by side. Nothing but Wait blocks.
class Stream : public Pollable {
 public:
  using Pollable::Pollable;
  /// Fills the buffers in order with what has arrived.
  virtual IoResult Read(const MutableBuffer* buffers, std::size_t count) = 0;
  /// Takes as much of the buffers, in order, as fits.
  virtual IoResult Write(const ConstBuffer* buffers, std::size_t count) = 0;
  /// Waits until Read would not say kWouldBlock, or, with `for_room` and where CanWaitForRoom, until Write
  /// would not; for at most `timeout_ms`. For the one thread that reads; a poller must not be asked for the
  /// same meanwhile.
  virtual StreamState Wait(bool for_room, int timeout_ms) = 0;
  virtual bool CanWaitForRoom() const { return false; }
  /// A hint of the thread that writes: much is about to be written, or that is over. The stream may hold more
  /// on its way meanwhile, which is good for bulk and bad for many small writes.
  virtual void SetBulk(bool /*bulk*/) {}
  /// Ends both directions: what arrived is still read, then both ends see kClosed, and a poller that
  /// watches either end reports it as readable. May be called from any thread, any number of times.
  virtual void Shutdown() noexcept = 0;
  virtual PeerIdentity Peer() const = 0;
};

/// Accepts connections under a name. Its destruction frees the name.
class Listener : public Pollable {
 public:
  using Pollable::Pollable;
  /// The next connection, or null with the reason: kWouldBlock when there is none now. kFailed with
  /// `retry` true is a shortage that may pass (no file descriptors); with false the listener is dead.
  struct Accepted {
    std::unique_ptr<Stream> stream;
    IoStatus status = IoStatus::kWouldBlock;
    bool retry = false;
    int system_error = 0;
  };
  virtual Accepted Accept() = 0;
};

struct Readiness {
  std::uint64_t token;
  bool readable;  ///< there is something to read, to accept, or the end has come
  bool writable;
};

/// All operations may be called from any thread.
class Poller {
 public:
  static constexpr unsigned kRead = 1;
  static constexpr unsigned kWrite = 2;

  virtual ~Poller() = default;

  /// Asks for one readiness of `source`, replacing what was asked for before: kRead, kWrite, both, or 0
  /// for its end only. `token`, which is neither 0 nor the largest number, comes back with it. What is ready
  /// already is reported at once. False when the system has no room for it.
  virtual bool Arm(Pollable& source, std::uint64_t token, unsigned interest) = 0;
  /// Watches `source` no longer. A readiness that another thread took out already may still be reported.
  virtual void Remove(Pollable& source) = 0;
  /// Waits for one readiness, for at most `timeout_ms` (below 0: as long as it takes). Nothing after a
  /// time-out, after Wake, and now and then for no reason.
  virtual std::optional<Readiness> Wait(int timeout_ms) = 0;
  /// Makes `threads` calls of Wait return without a readiness, now or, when fewer are under way, later.
  virtual void Wake(unsigned threads) = 0;
  /// As Wake(1), so much later; an earlier one that is not over is replaced. Only where CanWakeIn, which is
  /// where the system does so about as exactly as is asked for.
  virtual void WakeIn(std::chrono::microseconds /*delay*/) {}
  virtual bool CanWakeIn() const { return false; }
};

enum class EndpointError {
  kNone,
  kNameInvalid,    ///< not 1 to 64 letters, digits, '.', '_' or '-' that do not begin with '.'
  kInUse,          ///< a living process listens under this name
  kNobodyListens,  ///< for Connect
  kBusy,           ///< for Connect: somebody listens and has no room at the moment
  kFailed,         ///< the system said no
};

/// A result with the reason when there is none; `message` is for people and says what was tried.
template <typename T>
struct EndpointResult {
  std::unique_ptr<T> value;
  EndpointError error = EndpointError::kNone;
  std::string message;
};

/// One kind of local streams.
class LocalTransport {
 public:
  virtual ~LocalTransport() = default;
  /// Takes the name over from a process that has died, and never from a living one.
  virtual EndpointResult<Listener> Listen(const std::string& name) = 0;
  virtual EndpointResult<Stream> Connect(const std::string& name) = 0;
  /// Null when the system has no room for one.
  virtual std::unique_ptr<Poller> CreatePoller() = 0;
};

/// Whether `name` may name an endpoint.
bool IsEndpointName(const std::string& name);

/// The system's own: Unix stream sockets in a folder that only the user may enter. Never destroyed.
LocalTransport& SystemTransport();

/// Connects ends within this process; names mean something within one instance only. Streams hold up to
/// `capacity` bytes in each direction.
std::unique_ptr<LocalTransport> CreateMemoryTransport(std::size_t capacity = 64 * 1024);

}  // namespace os
