#pragma once

#include "WinSock.h"

namespace Tolm::Net {

/// What WSAPoll can be woken by, which waits for sockets only: one that hears itself and nobody else.
class WakeSocket {
 public:
  WakeSocket();
  ~WakeSocket();
  WakeSocket(const WakeSocket&) = delete;
  WakeSocket& operator=(const WakeSocket&) = delete;

  /// Whether it could be made.
  explicit operator bool() const { return socket_ != INVALID_SOCKET; }
  SOCKET get() const { return socket_; }

  /// Any thread: there is something to be read.
  void Ring();
  /// There is nothing any more.
  void Drain();

 private:
  SOCKET socket_;
};

}  // namespace Tolm::Net
