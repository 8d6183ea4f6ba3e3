#pragma once

// The unit of the wire: a header of 16 bytes, little-endian, and a payload. docs/wire/lpc-endpoint.md is
// the page for it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace lpc::wire {

enum class FrameType : std::uint8_t {
  kHello = 1,           // client: versions, capabilities, its id
  kWelcome = 2,         // server: the version and capabilities in force
  kRefuse = 3,          // server: a code and a reason; the connection ends
  kGoodbye = 4,         // either: a code and a reason; the connection ends
  kPing = 5,            // either
  kPong = 6,            // the answer to it
  kRequest = 16,        // a message that wants a reply
  kReply = 17,          // the message that answers the request with the same id
  kNotify = 18,         // a message that nobody answers
  kChunk = 19,          // more of the message with the same stream number
  kCancel = 20,         // the sender of the request with this id waits no longer
  kUndeliverable = 21,  // the request with this id will not be answered; a code
};

/// Frames of unknown types from here on are skipped; below, they end the connection.
inline constexpr std::uint8_t kFirstOptionalType = 128;

inline constexpr std::uint8_t kFlagMore = 0x01;     // chunks with the same stream number follow
inline constexpr std::uint8_t kFlagWaiting = 0x02;  // a thread of the requester is blocked meanwhile

inline constexpr std::size_t kHeaderSize = 16;
/// The largest payload of one frame that is accepted; longer messages come in chunks.
inline constexpr std::size_t kMaxFramePayload = 1u << 20;
/// The payload that we put into one frame at most, so that a small message never waits for more.
inline constexpr std::size_t kChunkPayload = 256u << 10;
/// The largest payload of every frame that is not part of a message.
inline constexpr std::size_t kMaxControlPayload = 1024;

struct FrameHeader {
  std::uint32_t payload_size = 0;
  FrameType type = FrameType::kPing;
  std::uint8_t flags = 0;
  std::uint16_t stream = 0;  // 0: the message is whole
  std::uint64_t message_id = 0;
};

using HeaderBytes = std::array<char, kHeaderSize>;

HeaderBytes EncodeHeader(const FrameHeader& header);
FrameHeader DecodeHeader(const char* bytes);

/// Whether a message, or more of one, is inside.
bool CarriesMessage(FrameType type);

inline constexpr std::uint16_t kProtocolVersion = 1;

struct Hello {
  std::uint16_t lowest_version = kProtocolVersion;
  std::uint16_t highest_version = kProtocolVersion;
  std::uint32_t capabilities = 0;
  std::string id;
};

struct Welcome {
  std::uint16_t version = kProtocolVersion;
  std::uint32_t capabilities = 0;
  std::uint64_t max_message_bytes = 0;
};

/// The payload of kRefuse, kGoodbye and kUndeliverable.
struct Notice {
  std::uint16_t code = 0;  // of lpc::Error
  std::string reason;
};

std::string EncodeHello(const Hello& hello);
std::string EncodeWelcome(const Welcome& welcome);
std::string EncodeNotice(const Notice& notice);
/// False for a payload that is not one. Bytes behind the known fields are a newer version's and ignored.
bool DecodeHello(Hello& hello, std::string_view payload);
bool DecodeWelcome(Welcome& welcome, std::string_view payload);
bool DecodeNotice(Notice& notice, std::string_view payload);

/// Whether `id` may name a peer: 1 to 255 bytes, none of them a control character, and not "0", which
/// is the frame's own.
bool IsPeerId(std::string_view id);

}  // namespace lpc::wire
