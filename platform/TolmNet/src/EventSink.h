#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "ServerOptions.h"
#include "TolmNet/HttpServer.h"
#include "Waker.h"
#include "os/Mutex.h"

namespace Tolm::Net {

/// Where a server's events go: to the callback, or, while there is none, into a queue that is delivered
/// first. The queue is bounded by not reading on, not by dropping: see IsFull.
class EventSink {
 public:
  EventSink(std::shared_ptr<Waker> waker, const ServerOptions& options);

  /// Any thread.
  void SetCallback(WebSocketServerCallBack callback);

  // The server's thread. Nothing is called once the server stops.
  /// May throw bad_alloc while there is no callback.
  void Deliver(std::int32_t socket_id, std::int32_t type, bool fin, const char* data, std::uint32_t len);
  void DeliverKept();
  /// Whether so much is kept that nothing more is to be read before a callback is set.
  bool IsFull() const { return kept_.size() >= max_events_ || kept_bytes_ >= max_bytes_; }

 private:
  struct Kept {
    std::int32_t socket_id;
    std::int32_t type;
    bool fin;
    std::string data;
  };

  std::shared_ptr<const WebSocketServerCallBack> Callback() const;
  void Call(const WebSocketServerCallBack& callback, std::int32_t socket_id, const WebsocketRecv& recv);

  const std::shared_ptr<Waker> waker_;
  const std::size_t max_events_;
  const std::size_t max_bytes_;

  // The server's thread only.
  std::deque<Kept> kept_;
  std::size_t kept_bytes_ = 0;

  mutable os::Mutex mutex_;
  std::shared_ptr<const WebSocketServerCallBack> callback_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace Tolm::Net
