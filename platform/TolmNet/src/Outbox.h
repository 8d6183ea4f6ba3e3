#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "FrameText.h"
#include "TolmNet/HttpServer.h"
#include "Waker.h"
#include "os/Mutex.h"

namespace Tolm::Net {

/// What waits to be sent to one client: filled by any thread, emptied by the server's.
class Outbox {
 public:
  Outbox(std::shared_ptr<Waker> waker, std::int32_t socket_id, std::string client_ip, std::size_t max_bytes);

  std::int32_t socket_id() const { return socket_id_; }
  const std::string& client_ip() const { return client_ip_; }

  /// As CHttpServer::SendWebSocketMsg, with arguments that are in order.
  int Send(int opcode, const char* data, std::uint32_t len, bool fin);
  /// Nothing more is taken; what waits is to be sent, and then the connection closed.
  void RequestClose();
  bool IsCloseRequested() const;

  enum class Next { kFrame, kClose, kNothing };
  /// The server's thread: what is to be sent next. The frame counts until Done.
  Next Take(OutgoingFrame& frame);
  void Done();
  /// The connection is over: nothing more is taken, what waits is destroyed. The number of frames lost.
  std::size_t Shut();

 private:
  const std::shared_ptr<Waker> waker_;
  const std::int32_t socket_id_;
  const std::string client_ip_;
  const std::size_t max_bytes_;

  mutable os::Mutex mutex_;
  std::deque<OutgoingFrame> frames_ TOLM_GUARDED_BY(mutex_);
  /// Of what has been reserved and is in frames_ or being sent.
  std::deque<std::size_t> costs_ TOLM_GUARDED_BY(mutex_);
  std::size_t bytes_ TOLM_GUARDED_BY(mutex_) = 0;
  bool close_requested_ TOLM_GUARDED_BY(mutex_) = false;
  bool shut_ TOLM_GUARDED_BY(mutex_) = false;
};

}  // namespace Tolm::Net
