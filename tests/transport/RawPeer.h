#pragma once

// A peer that puts bytes on the wire as a test wants them, right or wrong.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "FrameEnd.h"
#include "os/LocalStream.h"
#include "wire/Frame.h"

namespace tolm::test {

/// A frame as it went over the wire.
struct RawFrame {
  lpc::wire::FrameHeader header;
  std::string payload;

  lpc::wire::FrameType type() const { return header.type; }
  lpc::wire::Notice notice() const;
};

/// The bytes of a frame; its stated size is that of the payload.
std::string FrameBytes(lpc::wire::FrameType type, std::string_view payload = {}, std::uint64_t message_id = 0,
                       std::uint8_t flags = 0, std::uint16_t stream = 0);
std::string HelloBytes(const std::string& id);
/// The payload of a message that is whole.
std::string MessageBytes(const std::string& body, const LpcParams& params = {},
                         const std::string& dst_id = "0", const std::string& src_id = "raw");

class RawPeer {
 public:
  /// Connects; nothing is sent yet.
  explicit RawPeer(os::LocalTransport& transport, const std::string& name = kEndpoint);
  /// Connects and shakes hands.
  RawPeer(os::LocalTransport& transport, const FrameEnd& frame, const std::string& id);

  bool connected() const { return stream_ != nullptr; }
  os::Stream& stream() { return *stream_; }

  /// All of `bytes`, waiting for room. False when the other side ends the connection.
  bool Write(std::string_view bytes);
  /// As much as there is room for now; false when the connection has ended.
  bool WriteSome(std::string_view& bytes);

  /// The next frame; nothing when the connection has ended, or after a long time.
  std::optional<RawFrame> Read();
  /// Reads on until a frame of this type.
  std::optional<RawFrame> ReadUntil(lpc::wire::FrameType type);
  /// Says HELLO and gives the answer to it.
  std::optional<RawFrame> Shake(const std::string& id);
  /// Reads to the end of the connection: the reason that the other side gave. Nothing when it does not
  /// end, or ends without a reason.
  std::optional<lpc::wire::Notice> ReadReason();
  /// Reads to the end of the connection. False when it does not end.
  bool WaitEnd();
  void Close() { stream_.reset(); }

 private:
  bool Fill(std::size_t size);

  std::unique_ptr<os::Stream> stream_;
  std::string received_;
  bool ended_ = false;
};

}  // namespace tolm::test
