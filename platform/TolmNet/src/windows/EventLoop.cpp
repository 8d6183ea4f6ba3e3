// libwebsockets' loop is not used on this system: it waits for 64 events at most, so that so many clients
// who say nothing would shut everybody else out, and it does not wait at all while somebody does not read.

#include "EventLoop.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "WakeSocket.h"
#include "WinSock.h"

namespace Tolm::Net {
namespace {

// What one read takes at most.
constexpr std::size_t kReadBytes = 64U * 1024;
// Whatever else is asked for, the system tells of these.
constexpr int kEnded = POLLHUP | POLLERR | POLLNVAL;

class PollLoop final : public EventLoop {
 public:
  PollLoop(Handler& handler, Socket listener) : handler_(handler), listener_(listener) { MakeRoom(); }
  ~PollLoop() override;

  bool IsWakeable() const { return static_cast<bool>(waker_); }

  bool Turn() override;
  void Wake() override { waker_.Ring(); }
  void TickIn(std::chrono::milliseconds time) override { tick_at_ = Clock::now() + time; }

  void SetListening(bool on) override { listening_ = on; }
  bool Add(Client& client, Socket socket) override;
  void SetReading(Client& client, bool on) override { PlaceOf(client).reading = on; }
  void AskForRoom(Client& client) override { PlaceOf(client).wants_room = true; }
  void CloseSoon(Client& client) override { PlaceOf(client).doomed = true; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Watched {
    Socket socket;
    Client* client;  // null: closed
    bool reading = true;
    bool wants_room = false;
    bool doomed = false;
  };

  static Watched& PlaceOf(Client& client) { return *static_cast<Watched*>(Place(client)); }

  void MakeRoom();
  int TimeToTick() const;
  void FillPolled();
  void Serve(Watched& watched, int seen);
  bool Read(Watched& watched);
  void CloseNow(Watched& watched);
  void CloseDoomed();

  Handler& handler_;
  const Socket listener_;
  WakeSocket waker_;
  bool listening_ = true;
  std::optional<Clock::time_point> tick_at_;
  std::vector<std::unique_ptr<Watched>> watched_;
  // Of one Turn: who is polled, and then the waker, and the listener if it is listened to.
  std::vector<Watched*> polled_;
  std::vector<WSAPOLLFD> asked_;
  std::array<char, kReadBytes> buffer_;
};

PollLoop::~PollLoop() {
  Close(listener_);
  for (const auto& watched : watched_) {
    if (watched->client != nullptr) CloseNow(*watched);
  }
}

bool PollLoop::Turn() {
  CloseDoomed();
  FillPolled();
  if (::WSAPoll(asked_.data(), static_cast<ULONG>(asked_.size()), TimeToTick()) == SOCKET_ERROR) return false;
  const std::size_t clients = polled_.size();
  if (asked_[clients].revents != 0) waker_.Drain();
  for (std::size_t i = 0; i < clients; ++i) Serve(*polled_[i], asked_[i].revents);
  if (asked_.size() > clients + 1 && asked_.back().revents != 0) handler_.OnListener();
  if (tick_at_ && Clock::now() >= *tick_at_) {
    tick_at_.reset();
    handler_.OnTick();
  }
  return true;
}

// For everybody, and one more: a Turn needs no memory.
void PollLoop::MakeRoom() {
  polled_.reserve(watched_.size() + 1);
  asked_.reserve(watched_.size() + 3);
}

// Rounded up, so that nothing spins through the last millisecond; for ever is -1.
int PollLoop::TimeToTick() const {
  if (!tick_at_) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*tick_at_ - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
}

void PollLoop::FillPolled() {
  polled_.clear();
  asked_.clear();
  for (const auto& watched : watched_) {
    // Who is asked nothing would be told of for ever when his peer has gone.
    if (!watched->reading && !watched->wants_room) continue;
    const int events = (watched->reading ? POLLIN : 0) | (watched->wants_room ? POLLOUT : 0);
    polled_.push_back(watched.get());
    asked_.push_back({Native(watched->socket), static_cast<SHORT>(events), 0});
  }
  asked_.push_back({waker_.get(), POLLIN, 0});
  if (listening_) asked_.push_back({Native(listener_), POLLIN, 0});
}

void PollLoop::Serve(Watched& watched, int seen) {
  if (seen == 0) return;
  bool wanted = true;
  if (watched.reading && (seen & (POLLIN | kEnded)) != 0) wanted = Read(watched);
  if (wanted && watched.wants_room && (seen & (POLLOUT | kEnded)) != 0) {
    watched.wants_room = false;
    // Without room it has ended, in a pause of reading: the next tick finds it out.
    if ((seen & POLLOUT) != 0) wanted = handler_.OnClient(*watched.client, Event::kRoom, nullptr, 0);
  }
  if (!wanted) CloseNow(watched);
}

bool PollLoop::Read(Watched& watched) {
  const int got = ::recv(Native(watched.socket), buffer_.data(), static_cast<int>(buffer_.size()), 0);
  if (got < 0) return ::WSAGetLastError() == WSAEWOULDBLOCK;
  return got > 0 &&
         handler_.OnClient(*watched.client, Event::kBytes, buffer_.data(), static_cast<std::size_t>(got));
}

bool PollLoop::Add(Client& client, Socket socket) {
  try {
    MakeRoom();
    watched_.push_back(std::make_unique<Watched>(Watched{socket, &client}));
  } catch (const std::bad_alloc&) {
    Close(socket);
    return false;
  }
  Place(client) = watched_.back().get();
  return true;
}

void PollLoop::CloseNow(Watched& watched) {
  Close(watched.socket);
  handler_.OnClient(*std::exchange(watched.client, nullptr), Event::kClosed, nullptr, 0);
}

void PollLoop::CloseDoomed() {
  for (std::size_t i = 0; i < watched_.size(); ++i) {
    if (watched_[i]->client != nullptr && watched_[i]->doomed) CloseNow(*watched_[i]);
  }
  std::erase_if(watched_, [](const auto& watched) { return watched->client == nullptr; });
}

}  // namespace

std::unique_ptr<EventLoop> EventLoop::Make(Handler& handler, Socket listener) {
  try {
    auto loop = std::make_unique<PollLoop>(handler, listener);
    if (loop->IsWakeable()) return loop;
  } catch (const std::bad_alloc&) {
    Close(listener);
  }
  return nullptr;
}

}  // namespace Tolm::Net
