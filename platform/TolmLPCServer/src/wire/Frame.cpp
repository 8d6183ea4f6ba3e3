#include "wire/Frame.h"

#include <algorithm>

#include "wire/Bytes.h"

namespace lpc::wire {
namespace {

// The first four bytes of a connection, "TLPC": whoever speaks something else is recognised at once.
constexpr std::uint32_t kMagic = 0x43504C54;
constexpr std::size_t kMaxIdSize = 255;
constexpr std::size_t kMaxReasonSize = 512;

constexpr bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7F;
}

}  // namespace

HeaderBytes EncodeHeader(const FrameHeader& header) {
  HeaderBytes bytes;
  ByteWriter writer(bytes.data());
  writer.Number(header.payload_size);
  writer.Number(static_cast<std::uint8_t>(header.type));
  writer.Number(header.flags);
  writer.Number(header.stream);
  writer.Number(header.message_id);
  return bytes;
}

FrameHeader DecodeHeader(const char* bytes) {
  ByteReader reader({bytes, kHeaderSize});
  FrameHeader header;
  header.payload_size = reader.Number<std::uint32_t>();
  header.type = static_cast<FrameType>(reader.Number<std::uint8_t>());
  header.flags = reader.Number<std::uint8_t>();
  header.stream = reader.Number<std::uint16_t>();
  header.message_id = reader.Number<std::uint64_t>();
  return header;
}

bool CarriesMessage(FrameType type) {
  return type == FrameType::kRequest || type == FrameType::kReply || type == FrameType::kNotify ||
         type == FrameType::kChunk;
}

std::string EncodeHello(const Hello& hello) {
  std::string payload(4 + 2 + 2 + 4 + 2 + hello.id.size(), '\0');
  ByteWriter writer(payload.data());
  writer.Number(kMagic);
  writer.Number(hello.lowest_version);
  writer.Number(hello.highest_version);
  writer.Number(hello.capabilities);
  writer.Text<std::uint16_t>(hello.id);
  return payload;
}

bool DecodeHello(Hello& hello, std::string_view payload) {
  ByteReader reader(payload);
  const bool magic = reader.Number<std::uint32_t>() == kMagic;
  hello.lowest_version = reader.Number<std::uint16_t>();
  hello.highest_version = reader.Number<std::uint16_t>();
  hello.capabilities = reader.Number<std::uint32_t>();
  hello.id = reader.Text<std::uint16_t>();
  return magic && reader.ok();
}

std::string EncodeWelcome(const Welcome& welcome) {
  std::string payload(2 + 4 + 8, '\0');
  ByteWriter writer(payload.data());
  writer.Number(welcome.version);
  writer.Number(welcome.capabilities);
  writer.Number(welcome.max_message_bytes);
  return payload;
}

bool DecodeWelcome(Welcome& welcome, std::string_view payload) {
  ByteReader reader(payload);
  welcome.version = reader.Number<std::uint16_t>();
  welcome.capabilities = reader.Number<std::uint32_t>();
  welcome.max_message_bytes = reader.Number<std::uint64_t>();
  return reader.ok();
}

std::string EncodeNotice(const Notice& notice) {
  const std::string_view reason = std::string_view(notice.reason).substr(0, kMaxReasonSize);
  std::string payload(2 + 2 + reason.size(), '\0');
  ByteWriter writer(payload.data());
  writer.Number(notice.code);
  writer.Text<std::uint16_t>(reason);
  return payload;
}

bool DecodeNotice(Notice& notice, std::string_view payload) {
  ByteReader reader(payload);
  notice.code = reader.Number<std::uint16_t>();
  notice.reason = reader.Text<std::uint16_t>();
  // It ends up in log lines, which it must not be able to forge.
  std::replace_if(notice.reason.begin(), notice.reason.end(), IsControl, '?');
  return reader.ok();
}

bool IsPeerId(std::string_view id) {
  return !id.empty() && id.size() <= kMaxIdSize && id != "0" && std::none_of(id.begin(), id.end(), IsControl);
}

}  // namespace lpc::wire
