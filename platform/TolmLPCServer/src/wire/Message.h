#pragma once

// What travels in the frames of one message: a prefix of fixed size, the ids and params, the body.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "TolmLPCServer/LpcRecords.h"
#include "wire/Frame.h"

namespace lpc::wire {

inline constexpr std::size_t kPrefixSize = 12;

struct MessagePrefix {
  std::uint32_t meta_size = 0;  // ids and params
  std::uint32_t body_size = 0;
  std::uint32_t time_out_ms = 0;  // how long the requester waits; 0: it does not say
  /// Bytes of the whole message.
  std::uint64_t total() const { return kPrefixSize + std::uint64_t{meta_size} + body_size; }
};

/// What is sent behind the params; the bytes outlive the call that it is given to.
struct OutgoingBody {
  std::string_view bytes;
  /// When set, holds the bytes and may be emptied to keep them.
  std::string* owner = nullptr;
};

/// A message on its way out; the texts outlive the call that it is given to.
struct OutgoingMessage {
  FrameType type = FrameType::kNotify;
  std::uint8_t flags = 0;
  std::uint64_t id = 0;
  std::uint32_t time_out_ms = 0;
  std::string_view dst_id;
  std::string_view src_id;
  const LpcParams* params = nullptr;
  OutgoingBody body;
};

/// A message that has arrived.
struct InboundMessage {
  FrameType type = FrameType::kNotify;
  std::uint8_t flags = 0;
  std::uint64_t id = 0;
  std::uint32_t time_out_ms = 0;
  std::string dst_id;
  std::string src_id;
  LpcParams params;
  std::string body;
};

/// Whether the message is within the limits: kOk or kMessageTooLarge.
int CheckLimits(const OutgoingMessage& message, std::size_t max_bytes, std::size_t max_params);

/// The message's prefix and meta section, behind `room` free bytes.
std::string EncodeHead(const OutgoingMessage& message, std::size_t room);
/// How long the message is as one frame, which is longer than a frame may be when ids, params or body are.
std::uint64_t FrameSize(const OutgoingMessage& message);
/// The message as one frame, header and body included, behind what `bytes` holds.
void AppendFrame(std::string& bytes, const OutgoingMessage& message);

MessagePrefix DecodePrefix(const char* bytes);

/// Reads the meta section into ids and params. False when it is not exactly one, or has more than
/// `max_params` entries; of two entries with the same key the first counts.
bool DecodeMeta(InboundMessage& message, std::string_view meta, std::size_t max_params);

}  // namespace lpc::wire
