#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Process.h"

namespace bench {

/// The physical yardstick: two processes, a stream of the system's between them, blocking reads and writes.
class RawPeer {
 public:
  RawPeer() : peer_({"--role", "raw"}) {}

  /// `count` times `size` bytes there and back; how long each took, in microseconds.
  std::vector<double> PingPong(std::size_t size, std::size_t count);
  /// `size` bytes there, one back.
  std::vector<double> There(std::size_t size, std::size_t count);
  /// One byte there, `size` back.
  std::vector<double> Back(std::size_t size, std::size_t count);
  /// `count` writes of `size` bytes until the other side has read the last: writes per second.
  double WritesPerSecond(std::size_t size, std::size_t count);
  /// The same in `groups` of kGroup writes, each when the other side has read the one before.
  double GroupedWritesPerSecond(std::size_t size, std::size_t groups);

 private:
  std::vector<double> Exchange(Task task, std::size_t there, std::size_t back, std::size_t size,
                               std::size_t count);

  Child peer_;
};

/// The other side's process, until the channel ends.
int RunRawRole();

}  // namespace bench
