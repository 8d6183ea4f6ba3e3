#pragma once

// A client that puts bytes on the wire as a test wants them, right or wrong.

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "ClientSocket.h"

namespace tolm::test {

inline constexpr std::chrono::milliseconds kLong{60000};

/// A frame as a server sends it.
struct SeenFrame {
  int opcode = -1;
  bool fin = false;
  bool masked = false;
  std::string payload;

  /// Of a close frame; 0 when it gives none.
  int close_code() const;
};

/// A frame as a client has to send it; each deviation is one argument.
struct FrameBytes {
  int opcode = 1;
  bool fin = true;
  int reserved = 0;  ///< the three bits behind the first
  bool masked = true;

  std::string operator()(std::string_view payload) const;
  /// Only the header, for a payload of `length` bytes, which is written in `width` bytes (0: the shortest).
  std::string Header(std::uint64_t length, int width = 0) const;
};

std::string Text(std::string_view payload, bool fin = true);
std::string CloseBytes(int code, std::string_view reason = {});

/// What a guard sends, line by line; `changes` replace the headers of the same name, or take one away when
/// they end with the colon.
std::string UpgradeRequestBytes(std::initializer_list<std::string_view> changes = {},
                                std::string_view request_line = "GET / HTTP/1.1");

class RawClient {
 public:
  RawClient() = default;
  /// Connects; nothing is sent. `receive_buffer`: of its socket, 0 for the system's own.
  explicit RawClient(std::uint16_t port, int receive_buffer = 0);
  ~RawClient();
  RawClient(RawClient&& other) noexcept;
  RawClient& operator=(RawClient&& other) noexcept;

  /// Connects and shakes hands; closed when it was refused.
  static RawClient Upgraded(std::uint16_t port, int receive_buffer = 0);

  bool connected() const { return socket_ != kNoClientSocket; }
  /// Whether something, or the end, is there to be read now.
  bool HasInput() const;

  /// All of `bytes`, waiting for room. False when the connection has ended.
  bool Send(std::string_view bytes);
  /// Up to the empty line that ends a head; what there was when the connection ended before.
  std::string ReadHead();
  /// The next frame; nothing when the connection has ended, or after a long time.
  std::optional<SeenFrame> ReadFrame();
  /// Reads and throws away what comes to the end. Whether it ended, by whichever way.
  bool ReadToEnd();
  /// Takes up to `bytes` out of the socket once there are some.
  std::size_t TakeSome(std::size_t bytes);
  /// Ends with a reset instead of an end.
  void Reset();
  void Close();

 private:
  bool Fill(std::size_t bytes);
  bool ReceiveOnce();

  ClientSocket socket_ = kNoClientSocket;
  std::string in_;
};

}  // namespace tolm::test
