#pragma once

#include <cstdint>
#include <string>

#include "Channel.h"

namespace bench {

/// A guard's end of its connection to the frame, as bare as it can be: a blocking socket.
class GuardClient {
 public:
  /// Connects to the frame that listens on `port`, and upgrades.
  explicit GuardClient(std::uint16_t port);

  /// `text` as a guard sends it: one masked frame.
  static std::string FrameOf(const std::string& text);

  /// Sends a frame, and gives the next one that comes, header and all.
  std::string Ask(const std::string& frame);

  /// For those who know how long the answer is.
  Channel& channel() { return channel_; }

 private:
  std::string Read(std::size_t size);

  Channel channel_;
};

}  // namespace bench
