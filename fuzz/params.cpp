// Any bytes as the ids and params of a message: they are what a plain reader finds, within the limit, and can
// be written and read again.

#include <optional>
#include <string_view>

#include "support/Input.h"
#include "wire/Message.h"

namespace {

using fuzz::Require;

constexpr std::size_t kMaxParams = 16;

/// The same by hand: a length of `width` bytes, then so many bytes.
std::optional<std::string> TakeText(std::string_view& rest, std::size_t width) {
  if (rest.size() < width) return std::nullopt;
  std::uint64_t length = 0;
  for (std::size_t i = width; i-- > 0;) length = length << 8 | static_cast<unsigned char>(rest[i]);
  rest.remove_prefix(width);
  if (rest.size() < length) return std::nullopt;
  std::string text(rest.substr(0, length));
  rest.remove_prefix(length);
  return text;
}

std::optional<lpc::wire::InboundMessage> ReadByHand(std::string_view rest) {
  lpc::wire::InboundMessage message;
  auto text = TakeText(rest, 2);
  if (!text) return std::nullopt;
  message.dst_id = *text;
  if (text = TakeText(rest, 2); !text || rest.size() < 4) return std::nullopt;
  message.src_id = *text;
  std::uint64_t count = 0;
  for (std::size_t i = 4; i-- > 0;) count = count << 8 | static_cast<unsigned char>(rest[i]);
  rest.remove_prefix(4);
  if (count > kMaxParams) return std::nullopt;
  for (; count > 0; --count) {
    const auto key = TakeText(rest, 4);
    const auto value = key ? TakeText(rest, 4) : std::nullopt;
    if (!value) return std::nullopt;
    message.params.emplace(*key, *value);
  }
  if (!rest.empty()) return std::nullopt;
  return message;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string meta(reinterpret_cast<const char*>(data), size);
  lpc::wire::InboundMessage message;
  const bool read = DecodeMeta(message, meta, kMaxParams);
  const auto expected = ReadByHand(meta);
  Require(read == expected.has_value(), "what is no meta section is refused, and nothing else");
  if (!read) return 0;
  Require(message.dst_id == expected->dst_id && message.src_id == expected->src_id &&
              message.params == expected->params,
          "ids and params are those of a plain reader");

  lpc::wire::OutgoingMessage outgoing;
  outgoing.dst_id = message.dst_id;
  outgoing.src_id = message.src_id;
  outgoing.params = &message.params;
  const std::string head = EncodeHead(outgoing, 0);
  const lpc::wire::MessagePrefix prefix = lpc::wire::DecodePrefix(head.data());
  Require(prefix.total() == head.size() && prefix.meta_size <= size, "the prefix tells the sizes");
  lpc::wire::InboundMessage again;
  Require(DecodeMeta(again, std::string_view(head).substr(lpc::wire::kPrefixSize), kMaxParams) &&
              again.params == message.params && again.dst_id == message.dst_id,
          "what was read can be written and read again");
  return 0;
}
