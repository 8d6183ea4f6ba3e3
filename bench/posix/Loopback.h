#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Channel.h"
#include "posix/Copy.h"

namespace bench {

/// A TCP socket on a port of the loopback interface that the system chooses; it listens.
class Listener {
 public:
  Listener();
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::uint16_t port() const { return port_; }
  /// The descriptor of the next connection. Small writes leave it at once.
  int Accept() const;

 private:
  int descriptor_ = -1;
  std::uint16_t port_ = 0;
};

/// A descriptor of a connection to somebody who listens. Small writes leave it at once.
int ConnectTo(std::uint16_t port);

/// A port that nobody holds at the moment.
std::uint16_t FreePort();

/// Whether somebody listens on `port`.
bool IsServed(std::uint16_t port);

/// The yardstick for what a guard says: another process that reads `there` bytes and writes `back`, again
/// and again, over a bare TCP connection with blocking reads and writes.
class LoopbackPeer {
 public:
  /// While this process has one thread.
  LoopbackPeer(std::size_t there, std::size_t back);

  Channel& channel() { return channel_; }

 private:
  const Listener listener_;
  const Copy peer_;
  Channel channel_;
};

}  // namespace bench
