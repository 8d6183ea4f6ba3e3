#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "Socket.h"

namespace Tolm::Net {

/// Waits for a listener, the sockets of clients, a clock and other threads, all on one thread. Twin files:
/// posix/EventLoop.cpp is libwebsockets' loop; windows/EventLoop.cpp says why it is another one there.
///
/// All functions but Wake belong to the loop's thread. Until the first Turn that may be any.
class EventLoop {
 public:
  /// Who is watched. Must live until its kClosed, or until the loop is gone.
  class Client {
   private:
    friend class EventLoop;
    void* place_ = nullptr;  // the loop's own
  };

  enum class Event {
    kBytes,   ///< some came
    kRoom,    ///< there is room for bytes, after AskForRoom
    kClosed,  ///< the socket is closed: the last that is told
  };

  class Handler {
   public:
    virtual void OnListener() = 0;
    virtual void OnTick() = 0;
    /// `data` and `size` belong to kBytes. False: the socket is not wanted any more, and will be closed.
    virtual bool OnClient(Client& client, Event event, const char* data, std::size_t size) = 0;

   protected:
    ~Handler() = default;
  };

  /// `listener` belongs to the loop from now on, also when the loop cannot be made, which is null. `handler`
  /// must outlive it.
  static std::unique_ptr<EventLoop> Make(Handler& handler, Socket listener);
  /// Closes every socket, and tells so.
  virtual ~EventLoop() = default;

  /// Waits, and tells what there is, which may be nothing. False when no waiting is possible any more.
  virtual bool Turn() = 0;
  /// Any thread, while there is a loop: ends the waiting of this Turn, or of the next.
  virtual void Wake() = 0;
  /// OnTick once, after so long.
  virtual void TickIn(std::chrono::milliseconds time) = 0;

  virtual void SetListening(bool on) = 0;
  /// What was accepted belongs to the loop from now on. False: it finds no place and is closed, and the
  /// client may have been told so.
  virtual bool Add(Client& client, Socket socket) = 0;
  virtual void SetReading(Client& client, bool on) = 0;
  /// kRoom once.
  virtual void AskForRoom(Client& client) = 0;
  /// Closes the socket, not before this call has returned.
  virtual void CloseSoon(Client& client) = 0;

 protected:
  static void*& Place(Client& client) { return client.place_; }
};

}  // namespace Tolm::Net
