// Pipes know no readiness: one asks for bytes, and is told when they are there. So a stream that somebody
// waits for always has one read under way, into a small buffer of its own; what does not fit there is taken
// by the reader himself, straight to where it belongs. Writes are handed to the system whole, from a buffer
// that goes with them when the other side has no room: the stream is writable again when that is done.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "PipeStream.h"
#include "os/Mutex.h"
#include "os/PerThread.h"

namespace os {
namespace {

constexpr std::size_t kInputBytes = 4096;
constexpr std::size_t kOutputBytes = 64u << 10;

using Clock = std::chrono::steady_clock;

bool IsEnd(DWORD error) {
  switch (error) {
    case ERROR_BROKEN_PIPE:
    case ERROR_NO_DATA:
    case ERROR_PIPE_NOT_CONNECTED:
    case ERROR_HANDLE_EOF:
      return true;
    default:
      return false;
  }
}

class Pipe final : public PipeSource, public std::enable_shared_from_this<Pipe> {
 public:
  Pipe(PipeEnd end, const PeerIdentity& peer) : peer_(peer), end_(std::move(end)) {}
  ~Pipe() { Shutdown(); }

  IoResult Read(const MutableBuffer* buffers, std::size_t count);
  IoResult Write(const ConstBuffer* buffers, std::size_t count);
  bool WaitReadable(int timeout_ms);
  void Shutdown() noexcept;
  const PeerIdentity& peer() const { return peer_; }

  bool Arm(const std::shared_ptr<Port>& port, std::uint64_t token, unsigned interest) override;
  void Disarm() override;
  std::optional<Readiness> Take(const OVERLAPPED* ended) override;

 private:
  bool HasInputLocked() const TOLM_REQUIRES(mutex_) { return input_begin_ < input_end_; }
  bool IsReadableLocked() const TOLM_REQUIRES(mutex_) { return over_ || HasInputLocked(); }
  void BeginReadLocked() TOLM_REQUIRES(mutex_);
  void CollectReadLocked() TOLM_REQUIRES(mutex_);
  void CollectWriteLocked() TOLM_REQUIRES(mutex_);
  std::size_t TakeInputLocked(const MutableBuffer*& buffers, std::size_t& count, std::size_t& filled)
      TOLM_REQUIRES(mutex_);
  std::size_t ReadAvailableLocked(char* data, std::size_t size) TOLM_REQUIRES(mutex_);
  void DrainLocked() TOLM_REQUIRES(mutex_);
  bool IsReadyLocked() TOLM_REQUIRES(mutex_);
  void EndLocked(DWORD error) TOLM_REQUIRES(mutex_);

  const PeerIdentity peer_;
  const Handle read_event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};

  Mutex mutex_;
  PipeEnd end_ TOLM_GUARDED_BY(mutex_);  // without handle after Shutdown
  bool over_ TOLM_GUARDED_BY(mutex_) = false;
  IoResult over_result_ TOLM_GUARDED_BY(mutex_){IoStatus::kClosed};

  // What was read ahead: [input_begin_, input_end_) of input_. A read under way writes behind it.
  std::vector<char> input_ TOLM_GUARDED_BY(mutex_) = std::vector<char>(kInputBytes);
  std::size_t input_begin_ TOLM_GUARDED_BY(mutex_) = 0;
  std::size_t input_end_ TOLM_GUARDED_BY(mutex_) = 0;
  std::unique_ptr<PipeOperation> idle_read_ TOLM_GUARDED_BY(mutex_);  // between two reads
  std::unique_ptr<PipeOperation> read_ TOLM_GUARDED_BY(mutex_);       // null when none is under way
  std::unique_ptr<PipeOperation> write_ TOLM_GUARDED_BY(mutex_);      // as well
  // Somebody is in WaitReadable: the read under way and its event are his.
  bool is_waited_for_ TOLM_GUARDED_BY(mutex_) = false;

  bool armed_ TOLM_GUARDED_BY(mutex_) = false;
  std::uint64_t token_ TOLM_GUARDED_BY(mutex_) = 0;
  unsigned interest_ TOLM_GUARDED_BY(mutex_) = 0;
};

// ------------------------------------------------------------------------------- reading

void Pipe::BeginReadLocked() {
  if (read_ || over_) return;
  if (!HasInputLocked()) input_begin_ = input_end_ = 0;
  const std::size_t room = kInputBytes - std::min(input_end_, kInputBytes);
  if (room == 0) return;
  if (!idle_read_) {
    idle_read_ = std::make_unique<PipeOperation>();
    idle_read_->memory = std::make_unique<char[]>(kInputBytes);
  }
  PipeOperation* const operation = idle_read_.get();
  operation->overlapped = {};
  // A sender that waits for its reply waits for this event.
  operation->overlapped.hEvent = read_event_.get();
  const BOOL done = ::ReadFile(end_.handle.get(), operation->memory.get(), static_cast<DWORD>(room), nullptr,
                               &operation->overlapped);
  if (const DWORD error = ::GetLastError(); !done && error != ERROR_IO_PENDING) {
    EndLocked(error);
    return;
  }
  read_ = std::move(idle_read_);
  if (done) CollectReadLocked();
}

void Pipe::CollectReadLocked() {
  if (!read_ || !read_->IsCompleted()) return;
  idle_read_ = std::move(read_);
  DWORD bytes = 0;
  if (::GetOverlappedResult(end_.handle.get(), &idle_read_->overlapped, &bytes, FALSE)) {
    std::memcpy(input_.data() + input_end_, idle_read_->memory.get(), bytes);
    input_end_ += bytes;
    return;
  }
  const DWORD error = ::GetLastError();
  // The system cancels a read when the thread that began it ends. Nothing is lost, it is begun again.
  if (error != ERROR_OPERATION_ABORTED) EndLocked(error);
}

// Of what is there now, without waiting.
std::size_t Pipe::ReadAvailableLocked(char* data, std::size_t size) {
  DWORD available = 0;
  if (!::PeekNamedPipe(end_.handle.get(), nullptr, 0, nullptr, &available, nullptr)) {
    EndLocked(::GetLastError());
    return 0;
  }
  if (available == 0) return 0;
  OVERLAPPED overlapped{};
  // With the lowest bit set no packet is sent.
  overlapped.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<std::uintptr_t>(read_event_.get()) | 1);
  const DWORD wanted = std::min(available, static_cast<DWORD>(std::min<std::size_t>(size, MAXLONG)));
  DWORD bytes = 0;
  if (!::ReadFile(end_.handle.get(), data, wanted, nullptr, &overlapped) &&
      ::GetLastError() != ERROR_IO_PENDING) {
    EndLocked(::GetLastError());
    return 0;
  }
  // The bytes are there, and nobody else reads: this does not wait for the other side.
  if (!::GetOverlappedResult(end_.handle.get(), &overlapped, &bytes, TRUE)) {
    EndLocked(::GetLastError());
    return 0;
  }
  return bytes;
}

// Moves what was read ahead to the first buffers, and these on to what is left of them. `filled` bytes of
// the first of the remaining ones are used.
std::size_t Pipe::TakeInputLocked(const MutableBuffer*& buffers, std::size_t& count, std::size_t& filled) {
  std::size_t total = 0;
  while (count > 0) {
    const std::size_t part = std::min(buffers->size - filled, input_end_ - input_begin_);
    std::memcpy(static_cast<char*>(buffers->data) + filled, input_.data() + input_begin_, part);
    input_begin_ += part;
    filled += part;
    total += part;
    if (filled < buffers->size) break;
    ++buffers;
    --count;
    filled = 0;
  }
  return total;
}

IoResult Pipe::Read(const MutableBuffer* buffers, std::size_t count) {
  const MutexLock lock(mutex_);
  CollectReadLocked();
  // A buffer that was not filled held all there was; otherwise there may be more where it came from.
  const bool may_be_more = !HasInputLocked() || input_end_ >= kInputBytes;
  std::size_t filled = 0;
  std::size_t total = TakeInputLocked(buffers, count, filled);
  while (may_be_more && count > 0 && !read_ && !over_) {
    const std::size_t got =
        ReadAvailableLocked(static_cast<char*>(buffers->data) + filled, buffers->size - filled);
    if (got == 0) break;
    total += got;
    filled += got;
    if (filled < buffers->size) continue;
    ++buffers;
    --count;
    filled = 0;
  }
  if (total > 0) return {IoStatus::kDone, total};
  return over_ ? over_result_ : IoResult{IoStatus::kWouldBlock};
}

bool Pipe::WaitReadable(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    {
      const MutexLock lock(mutex_);
      CollectReadLocked();
      if (!IsReadableLocked()) BeginReadLocked();
      is_waited_for_ = !IsReadableLocked();
      if (!is_waited_for_) return true;
      // Only a read that is bound to a port may be left behind: it could not be bound later.
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const DWORD timeout = static_cast<DWORD>(std::max<std::int64_t>(0, left));
    if (::WaitForSingleObject(read_event_.get(), timeout) == WAIT_OBJECT_0) {
      const MutexLock lock(mutex_);
      // The event comes before the result where the system leaves that to the thread that takes the packet.
      if (read_ && !read_->IsCompleted()) std::this_thread::yield();
      continue;
    }
    const MutexLock lock(mutex_);
    is_waited_for_ = false;
    if (read_ && end_.port == nullptr) {
      ::CancelIoEx(end_.handle.get(), &read_->overlapped);
      DWORD ignored = 0;
      ::GetOverlappedResult(end_.handle.get(), &read_->overlapped, &ignored, TRUE);
    }
    CollectReadLocked();
    return IsReadableLocked();
  }
}

// ------------------------------------------------------------------------------- writing

IoResult Pipe::Write(const ConstBuffer* buffers, std::size_t count) {
  const MutexLock lock(mutex_);
  CollectWriteLocked();
  if (over_) return over_result_;
  if (write_) return {IoStatus::kWouldBlock};
  static auto& gathered_by_each_thread = *new PerThread<std::unique_ptr<char[]>>;
  std::unique_ptr<char[]>& gathered = gathered_by_each_thread.Get();
  if (!gathered) gathered = std::make_unique<char[]>(kOutputBytes);
  std::size_t size = 0;
  for (std::size_t i = 0; i < count && size < kOutputBytes; ++i) {
    const std::size_t part = std::min(buffers[i].size, kOutputBytes - size);
    std::memcpy(gathered.get() + size, buffers[i].data, part);
    size += part;
  }
  if (size == 0) return {IoStatus::kDone, 0};
  auto operation = std::make_unique<PipeOperation>();
  // Without an event: it must not be cancelled when this thread ends.
  const BOOL done = ::WriteFile(end_.handle.get(), gathered.get(), static_cast<DWORD>(size), nullptr,
                                &operation->overlapped);
  if (done) return {IoStatus::kDone, size};
  if (const DWORD error = ::GetLastError(); error != ERROR_IO_PENDING) {
    // What the other side sent before it went may still be read.
    if (IsEnd(error)) return {IoStatus::kClosed, 0, static_cast<int>(error)};
    return {IoStatus::kFailed, 0, static_cast<int>(error)};
  }
  operation->memory = std::move(gathered);  // a write that has to wait takes it along
  write_ = std::move(operation);
  return {IoStatus::kDone, size};
}

// If it failed, the next one does as well.
void Pipe::CollectWriteLocked() {
  if (!write_ || !write_->IsCompleted()) return;
  if (end_.port) end_.port->Keep(end_.key, std::move(write_));  // its packet is still to come
  write_.reset();
}

// ------------------------------------------------------------------------------- the end

void Pipe::EndLocked(DWORD error) {
  over_ = true;
  over_result_ = {IsEnd(error) ? IoStatus::kClosed : IoStatus::kFailed, 0, static_cast<int>(error)};
}

// What has arrived until now is the reader's; there is no more of it than a pipe holds.
void Pipe::DrainLocked() {
  while (!over_) {
    input_.resize(std::max(input_.size(), input_end_ + kOutputBytes));
    const std::size_t got = ReadAvailableLocked(input_.data() + input_end_, kOutputBytes);
    if (got == 0) return;
    input_end_ += got;
    if (input_end_ >= 4 * kOutputBytes) return;
  }
}

void Pipe::Shutdown() noexcept {
  const MutexLock lock(mutex_);
  if (!end_.handle) return;
  CollectReadLocked();
  if (read_) {
    ::CancelIoEx(end_.handle.get(), &read_->overlapped);
    DWORD ignored = 0;
    ::GetOverlappedResult(end_.handle.get(), &read_->overlapped, &ignored, TRUE);
    CollectReadLocked();
  }
  if (!read_) DrainLocked();
  CollectWriteLocked();
  if (write_) ::CancelIoEx(end_.handle.get(), &write_->overlapped);
  for (auto* operation : {&read_, &write_}) {
    if (!*operation) continue;
    // The system may still use it.
    if (end_.port) {
      end_.port->Keep(end_.key, std::move(*operation));
    } else {
      while (!(*operation)->IsCompleted()) std::this_thread::yield();
      operation->reset();
    }
  }
  end_.handle = Handle();
  if (!over_) {
    over_ = true;
    over_result_ = {IoStatus::kClosed};
  }
  ::SetEvent(read_event_.get());
  if (armed_) end_.port->Hint(end_.key);
}

// ------------------------------------------------------------------------------- the poller

bool Pipe::Arm(const std::shared_ptr<Port>& port, std::uint64_t token, unsigned interest) {
  const MutexLock lock(mutex_);
  // What began before would send its packet nowhere.
  CollectWriteLocked();
  if (end_.port == nullptr && (write_ || read_)) return false;
  if (!port->Watch(port, end_, shared_from_this())) return false;
  armed_ = true;
  token_ = token;
  interest_ = interest;
  if (IsReadyLocked()) port->Hint(end_.key);
  return true;
}

void Pipe::Disarm() {
  const MutexLock lock(mutex_);
  armed_ = false;
  if (end_.port) end_.port->Forget(end_.key);
}

// Whether there is what was asked for; sees to it that a packet comes otherwise.
bool Pipe::IsReadyLocked() {
  CollectWriteLocked();
  // A read that began now would take back the event of the one before, for which he may only be about to
  // wait. He sees the end, too.
  if (is_waited_for_) return over_ || ((interest_ & Poller::kWrite) != 0 && !write_);
  CollectReadLocked();
  const bool wants_input = (interest_ & Poller::kRead) != 0;
  // Read ahead also when nobody wants it: the end shows in no other way.
  while (!over_ && !read_ && !(wants_input && HasInputLocked())) {
    BeginReadLocked();
    if (!read_ && input_end_ >= kInputBytes) break;  // no room: the end shows when there is
  }
  return over_ || (wants_input && HasInputLocked()) || ((interest_ & Poller::kWrite) != 0 && !write_);
}

std::optional<Readiness> Pipe::Take(const OVERLAPPED* ended) {
  const MutexLock lock(mutex_);
  // Its packet says that a write has ended, also where nobody has noted that in the operation: Wine leaves
  // that to the thread that began it, which may have ended as well.
  if (write_ && ended == &write_->overlapped) write_.reset();
  if (!armed_ || !IsReadyLocked()) return std::nullopt;
  armed_ = false;
  const bool readable = over_ || ((interest_ & Poller::kRead) != 0 && HasInputLocked());
  const bool writable = (interest_ & Poller::kWrite) != 0 && !write_;
  return Readiness{token_, readable, writable};
}

class PipeStream final : public Stream {
 public:
  explicit PipeStream(std::shared_ptr<Pipe> pipe)
      : Stream(reinterpret_cast<std::intptr_t>(static_cast<PipeSource*>(pipe.get()))),
        pipe_(std::move(pipe)) {}
  ~PipeStream() override {
    pipe_->Shutdown();
    pipe_->Disarm();  // a thread that looks at it at this moment may hold it a little longer
  }

  IoResult Read(const MutableBuffer* buffers, std::size_t count) override {
    return pipe_->Read(buffers, count);
  }
  IoResult Write(const ConstBuffer* buffers, std::size_t count) override {
    return pipe_->Write(buffers, count);
  }
  StreamState Wait(bool /*for_room*/, int timeout_ms) override {
    return {pipe_->WaitReadable(timeout_ms), false};
  }
  void Shutdown() noexcept override { pipe_->Shutdown(); }
  PeerIdentity Peer() const override { return pipe_->peer(); }

 private:
  const std::shared_ptr<Pipe> pipe_;
};

}  // namespace

std::unique_ptr<Stream> MakePipeStream(PipeEnd end, const PeerIdentity& peer) {
  return std::make_unique<PipeStream>(std::make_shared<Pipe>(std::move(end), peer));
}

}  // namespace os
