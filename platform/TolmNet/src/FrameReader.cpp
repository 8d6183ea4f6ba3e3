#include "FrameReader.h"

#include <algorithm>
#include <cstring>

namespace Tolm::Net {
namespace {

constexpr std::size_t kSmallPayload = 64U * 1024;
constexpr std::uint64_t kMaxControlPayload = 125;
constexpr int kOpcodeContinuation = 0;
constexpr int kOpcodeText = 1;
constexpr int kOpcodeBinary = 2;
constexpr int kOpcodeClose = 8;

FrameFault ProtocolFault(const char* why) {
  return {kCloseProtocolError, why};
}

std::uint64_t BigEndian(const unsigned char* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

// 1004 to 1006 and 1015 never stand on the wire, 1016 to 2999 wait for a meaning, 3000 to 4999 belong to
// others; 1012 to 1014 were registered later than the protocol was written.
bool MayBeSent(std::uint16_t code) {
  if (code >= 3000) return code < 5000;
  return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014);
}

// `out[i] = in[i] ^ mask[(position + i) % 4]`, eight bytes at a time.
void Unmask(char* out, const char* in, std::size_t size, const unsigned char* mask, std::size_t position) {
  unsigned char turned[8];
  for (std::size_t i = 0; i < 8; ++i) turned[i] = mask[(position + i) & 3];
  std::uint64_t eight_mask = 0;
  std::memcpy(&eight_mask, turned, 8);
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    std::uint64_t eight = 0;
    std::memcpy(&eight, in + i, 8);
    eight ^= eight_mask;
    std::memcpy(out + i, &eight, 8);
  }
  for (; i < size; ++i) out[i] = static_cast<char>(static_cast<unsigned char>(in[i]) ^ turned[i & 7]);
}

}  // namespace

std::optional<FrameFault> FrameReader::Read(const char* data, std::size_t size) {
  while (size > 0 && !receiver_.IsOver()) {
    std::size_t used = 0;
    std::optional<FrameFault> fault;
    if (in_payload_) {
      used = std::min<std::size_t>(size, payload_size_ - payload_has_);
      fault = AddPayload(data, used);
    } else {
      used = 1;
      header_[header_has_++] = static_cast<unsigned char>(*data);
      fault = LookAtHeader();
    }
    if (fault) return fault;
    data += used;
    size -= used;
  }
  return std::nullopt;
}

// After each byte of a header: what is wrong is known as early as it can be.
std::optional<FrameFault> FrameReader::LookAtHeader() {
  if (header_has_ == 1) {
    fin_ = (header_[0] & 0x80) != 0;
    opcode_ = header_[0] & 0x0F;
    if ((header_[0] & 0x70) != 0) return ProtocolFault("a reserved bit is set");
    switch (opcode_) {
      case kOpcodeContinuation:
        if (!in_message_) return ProtocolFault("a continuation of nothing");
        break;
      case kOpcodeText:
      case kOpcodeBinary:
        if (in_message_) return ProtocolFault("a message within a message");
        break;
      case kOpcodeClose:
      case kOpcodePing:
      case kOpcodePong:
        if (!fin_) return ProtocolFault("a control frame in fragments");
        break;
      default:
        return ProtocolFault("a reserved opcode");
    }
  } else if (header_has_ == 2) {
    if ((header_[1] & 0x80) == 0) return ProtocolFault("a frame without a mask");
    const int length = header_[1] & 0x7F;
    if (IsControl() && length > static_cast<int>(kMaxControlPayload)) {
      return ProtocolFault("a control frame that is too long");
    }
    header_needs_ = 6U + (length == 126 ? 2U : length == 127 ? 8U : 0U);
  }
  const std::size_t length_end = header_needs_ - 4;
  if (header_has_ >= 2 && header_has_ == length_end) {
    const std::size_t width = length_end - 2;
    const std::uint64_t length = width == 0 ? header_[1] & 0x7F : BigEndian(header_ + 2, width);
    if ((width == 2 && length < 126) || (width == 8 && length < 65536)) {
      return ProtocolFault("a length that is not written in the shortest way");
    }
    if (auto fault = LookAtLength(length)) return fault;
  }
  if (header_has_ < header_needs_ || header_has_ < 6) return std::nullopt;

  std::memcpy(mask_, header_ + length_end, 4);
  const std::size_t width = length_end - 2;
  BeginPayload(width == 0 ? header_[1] & 0x7F : BigEndian(header_ + 2, width));
  return payload_size_ == 0 ? EndFrame() : std::nullopt;
}

std::optional<FrameFault> FrameReader::LookAtLength(std::uint64_t length) const {
  if (length >> 63 != 0) return ProtocolFault("a negative length");
  if (length > max_payload_) return FrameFault{kCloseTooBig, "a frame that is too large"};
  return std::nullopt;
}

void FrameReader::BeginPayload(std::uint64_t length) {
  payload_size_ = static_cast<std::uint32_t>(length);
  payload_has_ = 0;
  if (length > kSmallPayload) {
    // Not touched before bytes arrive for it: who announces much and sends little takes no memory.
    large_ = std::make_unique_for_overwrite<char[]>(length);
    payload_ = large_.get();
  } else {
    if (!small_) small_ = std::make_unique_for_overwrite<char[]>(kSmallPayload);
    payload_ = small_.get();
  }
  in_payload_ = true;
  if (opcode_ == kOpcodeText || opcode_ == kOpcodeBinary) {
    message_is_text_ = opcode_ == kOpcodeText;
    utf8_.Reset();
  }
}

std::optional<FrameFault> FrameReader::AddPayload(const char* data, std::size_t size) {
  char* const place = payload_ + payload_has_;
  Unmask(place, data, size, mask_, payload_has_);
  payload_has_ += static_cast<std::uint32_t>(size);
  if (IsText() && !utf8_.Add(place, size)) return FrameFault{kCloseInvalidText, "text that is not UTF-8"};
  return payload_has_ == payload_size_ ? EndFrame() : std::nullopt;
}

std::optional<FrameFault> FrameReader::EndFrame() {
  in_payload_ = false;
  header_has_ = 0;
  header_needs_ = 2;
  switch (opcode_) {
    case kOpcodeClose:
      return EndCloseFrame();
    case kOpcodePing:
      receiver_.OnPing({payload_, payload_size_});
      return std::nullopt;
    case kOpcodePong:
      return std::nullopt;  // nothing was asked that it could answer
    default:
      break;
  }
  if (fin_ && IsText() && !utf8_.IsWhole()) {
    return FrameFault{kCloseInvalidText, "text that ends within a character"};
  }
  in_message_ = !fin_;
  receiver_.OnData(opcode_, fin_, payload_, payload_size_);
  large_.reset();
  return std::nullopt;
}

std::optional<FrameFault> FrameReader::EndCloseFrame() {
  if (payload_size_ == 1) return ProtocolFault("a close frame with half a code");
  std::uint16_t code = 0;
  if (payload_size_ >= 2) {
    code = static_cast<std::uint16_t>(BigEndian(reinterpret_cast<const unsigned char*>(payload_), 2));
    if (!MayBeSent(code)) return ProtocolFault("a close code that may not be sent");
    if (!Base::IsUtf8({payload_ + 2, payload_size_ - 2U})) {
      return FrameFault{kCloseInvalidText, "a close reason that is not UTF-8"};
    }
  }
  receiver_.OnClose(code);
  return std::nullopt;
}

}  // namespace Tolm::Net
