#include "os/LocalStream.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>

#include "Descriptor.h"
#include "UnixStream.h"

namespace os {
namespace {

constexpr std::size_t kMaxBuffers = 64;
constexpr int kBulkRoom = 512 << 10;
// No source has them.
constexpr std::uint64_t kWakeToken = 0;
constexpr std::uint64_t kTimerToken = ~std::uint64_t{0};

bool IsWouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Peers that vanish end a stream in more than one way; all of them mean the same.
bool IsClosed(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

IoResult Failure(int error) {
  if (IsWouldBlock(error)) return {IoStatus::kWouldBlock};
  if (IsClosed(error)) return {IoStatus::kClosed, 0, error};
  return {IoStatus::kFailed, 0, error};
}

template <typename Buffer>
std::size_t FillVector(std::array<iovec, kMaxBuffers>& vector, const Buffer* buffers, std::size_t count) {
  const std::size_t used = count < kMaxBuffers ? count : kMaxBuffers;
  for (std::size_t i = 0; i < used; ++i) {
    vector[i].iov_base = const_cast<void*>(static_cast<const void*>(buffers[i].data));
    vector[i].iov_len = buffers[i].size;
  }
  return used;
}

class EpollPoller final : public Poller {
 public:
  EpollPoller(Descriptor epoll, Descriptor wake, Descriptor timer)
      : epoll_(std::move(epoll)), wake_(std::move(wake)), timer_(std::move(timer)) {}

  bool Arm(Pollable& source, std::uint64_t token, unsigned interest) override {
    const int fd = static_cast<int>(source.native());
    epoll_event event{};
    event.events = EPOLLONESHOT | (interest & kRead ? EPOLLIN | EPOLLRDHUP : 0u) |
                   (interest & kWrite ? static_cast<unsigned>(EPOLLOUT) : 0u);
    event.data.u64 = token;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) == 0) return true;
    return errno == ENOENT && ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
  }

  void Remove(Pollable& source) override {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, static_cast<int>(source.native()), nullptr);
  }

  std::optional<Readiness> Wait(int timeout_ms) override {
    epoll_event event{};
    if (::epoll_wait(epoll_.get(), &event, 1, timeout_ms) <= 0) return std::nullopt;
    if (event.data.u64 == kWakeToken) {
      eventfd_t ignored = 0;
      ::eventfd_read(wake_.get(), &ignored);
      return std::nullopt;
    }
    if (event.data.u64 == kTimerToken) {
      std::uint64_t ignored = 0;
      [[maybe_unused]] const ssize_t read = ::read(timer_.get(), &ignored, sizeof ignored);
      return std::nullopt;
    }
    const bool ended = (event.events & (EPOLLHUP | EPOLLERR)) != 0;
    return Readiness{event.data.u64, ended || (event.events & (EPOLLIN | EPOLLRDHUP)) != 0,
                     (event.events & EPOLLOUT) != 0};
  }

  void Wake(unsigned threads) override { ::eventfd_write(wake_.get(), threads); }

  bool CanWakeIn() const override { return true; }

  void WakeIn(std::chrono::microseconds delay) override {
    itimerspec when{};
    when.it_value.tv_sec = delay.count() / 1'000'000;
    when.it_value.tv_nsec = delay.count() % 1'000'000 * 1000;
    ::timerfd_settime(timer_.get(), 0, &when, nullptr);
  }

  bool WatchOwn() { return Watch(wake_, kWakeToken) && Watch(timer_, kTimerToken); }

 private:
  bool Watch(const Descriptor& own, std::uint64_t token) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = token;
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, own.get(), &event) == 0;
  }

  const Descriptor epoll_;
  const Descriptor wake_;  // counts calls of Wait that are to return
  const Descriptor timer_;
};

}  // namespace

IoResult UnixStream::Read(const MutableBuffer* buffers, std::size_t count) {
  ssize_t got = 0;
  if (count == 1) {
    got = ::recv(socket_.get(), buffers->data, buffers->size, MSG_DONTWAIT);
  } else {
    std::array<iovec, kMaxBuffers> vector;
    msghdr message{};
    message.msg_iov = vector.data();
    message.msg_iovlen = FillVector(vector, buffers, count);
    got = ::recvmsg(socket_.get(), &message, MSG_DONTWAIT);
  }
  if (got > 0) return {IoStatus::kDone, static_cast<std::size_t>(got)};
  return got == 0 ? IoResult{IoStatus::kClosed} : Failure(errno);
}

IoResult UnixStream::Write(const ConstBuffer* buffers, std::size_t count) {
  std::array<iovec, kMaxBuffers> vector;
  msghdr message{};
  message.msg_iov = vector.data();
  message.msg_iovlen = FillVector(vector, buffers, count);
  const ssize_t sent = ::sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent >= 0 ? IoResult{IoStatus::kDone, static_cast<std::size_t>(sent)} : Failure(errno);
}

StreamState UnixStream::Wait(bool for_room, int timeout_ms) {
  pollfd watched{socket_.get(), static_cast<short>(POLLIN | (for_room ? POLLOUT : 0)), 0};
  // A wait that a signal has cut short is over for whoever looks at the stream then.
  if (const int ready = ::poll(&watched, 1, timeout_ms); ready <= 0) return {ready < 0, false};
  return {(watched.revents & ~POLLOUT) != 0, (watched.revents & POLLOUT) != 0};
}

// Otherwise a body of a mebibyte costs a wake-up for each fifth of it. More room than this would only let
// small messages wait longer behind it. The system gives as much as it allows, and counts twice what it is
// told.
void UnixStream::SetBulk(bool bulk) {
  if (usual_room_ == 0) {
    int room = 0;
    socklen_t length = sizeof room;
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &room, &length) != 0) return;
    usual_room_ = room / 2;  // the system says twice what it is told
  }
  const int room = bulk ? kBulkRoom : usual_room_;
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
}

void UnixStream::Shutdown() noexcept {
  ::shutdown(socket_.get(), SHUT_RDWR);
}

PeerIdentity UnixStream::Peer() const {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return {};
  return {credentials.uid == ::geteuid(), credentials.pid};
}

std::unique_ptr<Poller> CreateEpollPoller() {
  Descriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
  Descriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!epoll || !wake || !timer) return nullptr;
  auto poller = std::make_unique<EpollPoller>(std::move(epoll), std::move(wake), std::move(timer));
  if (!poller->WatchOwn()) return nullptr;
  return poller;
}

}  // namespace os
