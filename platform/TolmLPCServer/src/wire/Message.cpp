#include "wire/Message.h"

#include <algorithm>
#include <limits>

#include "TolmLPCServer/LpcError.h"
#include "wire/Bytes.h"

namespace lpc::wire {
namespace {

std::uint64_t MetaSize(const OutgoingMessage& message) {
  std::uint64_t size = 2 + message.dst_id.size() + 2 + message.src_id.size() + 4;
  for (const auto& [key, value] : *message.params) size += 4 + key.size() + 4 + value.size();
  return size;
}

void WriteHead(char* place, const OutgoingMessage& message, std::uint64_t meta_size) {
  ByteWriter writer(place);
  writer.Number(static_cast<std::uint32_t>(meta_size));
  writer.Number(static_cast<std::uint32_t>(message.body.bytes.size()));
  writer.Number(message.time_out_ms);
  writer.Text<std::uint16_t>(message.dst_id);
  writer.Text<std::uint16_t>(message.src_id);
  writer.Number(static_cast<std::uint32_t>(message.params->size()));
  for (const auto& [key, value] : *message.params) {
    writer.Text<std::uint32_t>(key);
    writer.Text<std::uint32_t>(value);
  }
}

}  // namespace

int CheckLimits(const OutgoingMessage& message, std::size_t max_bytes, std::size_t max_params) {
  constexpr std::size_t kMaxId = std::numeric_limits<std::uint16_t>::max();
  // What the lengths on the wire can say, whatever the options allow.
  constexpr std::size_t kMaxBytes = std::numeric_limits<std::uint32_t>::max();
  if (message.params->size() > max_params || message.dst_id.size() > kMaxId ||
      message.src_id.size() > kMaxId ||
      kPrefixSize + MetaSize(message) + message.body.bytes.size() > std::min(max_bytes, kMaxBytes)) {
    return kMessageTooLarge;
  }
  return kOk;
}

std::string EncodeHead(const OutgoingMessage& message, std::size_t room) {
  const std::uint64_t meta_size = MetaSize(message);
  std::string head(room + kPrefixSize + meta_size, '\0');
  WriteHead(head.data() + room, message, meta_size);
  return head;
}

std::uint64_t FrameSize(const OutgoingMessage& message) {
  return kHeaderSize + kPrefixSize + MetaSize(message) + message.body.bytes.size();
}

void AppendFrame(std::string& bytes, const OutgoingMessage& message) {
  const std::uint64_t meta_size = MetaSize(message);
  FrameHeader header;
  header.payload_size = static_cast<std::uint32_t>(kPrefixSize + meta_size + message.body.bytes.size());
  header.type = message.type;
  header.flags = message.flags;
  header.message_id = message.id;
  const HeaderBytes header_bytes = EncodeHeader(header);
  const std::size_t at = bytes.size() + kHeaderSize;
  bytes.append(header_bytes.data(), kHeaderSize);
  bytes.resize(at + kPrefixSize + meta_size);
  WriteHead(bytes.data() + at, message, meta_size);
  bytes.append(message.body.bytes);
}

MessagePrefix DecodePrefix(const char* bytes) {
  ByteReader reader({bytes, kPrefixSize});
  MessagePrefix prefix;
  prefix.meta_size = reader.Number<std::uint32_t>();
  prefix.body_size = reader.Number<std::uint32_t>();
  prefix.time_out_ms = reader.Number<std::uint32_t>();
  return prefix;
}

bool DecodeMeta(InboundMessage& message, std::string_view meta, std::size_t max_params) {
  ByteReader reader(meta);
  message.dst_id = reader.Text<std::uint16_t>();
  message.src_id = reader.Text<std::uint16_t>();
  const auto count = reader.Number<std::uint32_t>();
  if (!reader.ok() || count > max_params) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::string_view key = reader.Text<std::uint32_t>();
    const std::string_view value = reader.Text<std::uint32_t>();
    if (!reader.ok()) return false;
    // Maps arrive in order, so the end is where the next one belongs.
    message.params.emplace_hint(message.params.end(), key, value);
  }
  return reader.at_end();
}

}  // namespace lpc::wire
