#pragma once

// The frames that we send, as bytes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Tolm::Net {

/// Opcodes that users of the server never see.
inline constexpr int kOpcodePing = 9;
inline constexpr int kOpcodePong = 10;

/// Close codes that we give (RFC 6455, section 7.4.1).
enum CloseCode : std::uint16_t {
  kCloseNormal = 1000,
  kCloseGoingAway = 1001,
  kCloseProtocolError = 1002,
  kCloseInvalidText = 1007,
  kCloseTooBig = 1009,
  kCloseOurFault = 1011,
};

/// One frame, header and payload in one piece, and how much of it has been sent.
struct OutgoingFrame {
  std::unique_ptr<char[]> bytes;
  std::size_t size = 0;
  std::size_t sent = 0;

  bool empty() const { return sent == size; }
};

/// Throws bad_alloc. A server does not mask.
OutgoingFrame MakeFrame(int opcode, bool fin, const char* data, std::size_t len);
/// `code` 0: a close frame without one.
OutgoingFrame MakeCloseFrame(std::uint16_t code, std::string_view reason = {});
/// Bytes as they stand.
OutgoingFrame MakeRaw(std::string_view bytes);

}  // namespace Tolm::Net
