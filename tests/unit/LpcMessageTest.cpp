#include "wire/Message.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "TolmLPCServer/LpcError.h"
#include "wire/Bytes.h"

namespace lpc::wire {
namespace {

using std::string_literals::operator""s;

const LpcParams kParams = {{"", ""}, {"key", "value"}, {"nul\0key"s, "\0v\0"s}};

OutgoingMessage Example(const LpcParams& params) {
  OutgoingMessage message;
  message.dst_id = "destination";
  message.src_id = "source";
  message.params = &params;
  message.body = {"the body"};
  message.time_out_ms = 4321;
  return message;
}

std::string MetaOf(const OutgoingMessage& message) {
  return EncodeHead(message, 0).substr(kPrefixSize);
}

TEST(LpcMessage, AHeadComesBack) {
  const std::string head = EncodeHead(Example(kParams), 16);
  EXPECT_EQ(head.substr(0, 16), std::string(16, '\0')) << "room for the header";
  const MessagePrefix prefix = DecodePrefix(head.data() + 16);
  EXPECT_EQ(prefix.meta_size, head.size() - 16 - kPrefixSize);
  EXPECT_EQ(prefix.body_size, 8u);
  EXPECT_EQ(prefix.time_out_ms, 4321u);
  EXPECT_EQ(prefix.total(), head.size() - 16 + 8);
  InboundMessage back;
  ASSERT_TRUE(DecodeMeta(back, head.substr(16 + kPrefixSize), 3));
  EXPECT_EQ(back.dst_id, "destination");
  EXPECT_EQ(back.src_id, "source");
  EXPECT_EQ(back.params, kParams);
}

TEST(LpcMessage, SizesAreAddedWithoutOverflow) {
  const MessagePrefix prefix{0xFFFFFFFF, 0xFFFFFFFF, 0};
  EXPECT_EQ(prefix.total(), 2 * std::uint64_t{0xFFFFFFFF} + kPrefixSize);
}

TEST(LpcMessage, AMetaCutShortOrTooLongIsNone) {
  const std::string meta = MetaOf(Example(kParams));
  for (std::size_t size = 0; size < meta.size(); ++size) {
    InboundMessage cut;
    EXPECT_FALSE(DecodeMeta(cut, std::string_view(meta).substr(0, size), 100)) << size;
  }
  InboundMessage longer;
  EXPECT_FALSE(DecodeMeta(longer, meta + "x", 100));
}

// Each length in turn says that there is more than there is.
TEST(LpcMessage, ALengthBeyondTheEndIsNone) {
  const LpcParams params = {{"key", "value"}};
  const std::string meta = MetaOf(Example(params));
  const std::size_t source = 2 + 11;
  const std::size_t count = source + 2 + 6;
  const std::size_t key = count + 4;
  const std::size_t value = key + 4 + 3;
  for (const std::size_t at : {std::size_t{0}, source}) {
    std::string broken = meta;
    StoreNumber(broken.data() + at, std::uint16_t{0xFFFF});
    InboundMessage message;
    EXPECT_FALSE(DecodeMeta(message, broken, 1'000'000)) << at;
  }
  for (const std::size_t at : {count, key, value}) {
    std::string broken = meta;
    StoreNumber(broken.data() + at, std::uint32_t{0xFFFFFFFF});
    InboundMessage message;
    EXPECT_FALSE(DecodeMeta(message, broken, std::numeric_limits<std::size_t>::max())) << at;
  }
}

TEST(LpcMessage, MoreParamsThanAllowedAreNone) {
  InboundMessage message;
  EXPECT_TRUE(DecodeMeta(message, MetaOf(Example(kParams)), 3));
  EXPECT_FALSE(DecodeMeta(message, MetaOf(Example(kParams)), 2));
}

TEST(LpcMessage, OfTwoEqualKeysTheFirstCounts) {
  std::string meta(2 + 2 + 4 + 2 * (4 + 1 + 4 + 1), '\0');
  ByteWriter writer(meta.data());
  writer.Text<std::uint16_t>("");
  writer.Text<std::uint16_t>("");
  writer.Number(std::uint32_t{2});
  for (const char* value : {"1", "2"}) {
    writer.Text<std::uint32_t>("k");
    writer.Text<std::uint32_t>(value);
  }
  InboundMessage message;
  ASSERT_TRUE(DecodeMeta(message, meta, 10));
  EXPECT_EQ(message.params, (LpcParams{{"k", "1"}}));
}

TEST(LpcMessage, KeysOutOfOrderAreTakenAllTheSame) {
  std::string meta(2 + 2 + 4 + 3 * (4 + 1 + 4), '\0');
  ByteWriter writer(meta.data());
  writer.Text<std::uint16_t>("");
  writer.Text<std::uint16_t>("");
  writer.Number(std::uint32_t{3});
  for (const char* key : {"c", "a", "b"}) {
    writer.Text<std::uint32_t>(key);
    writer.Text<std::uint32_t>("");
  }
  InboundMessage message;
  ASSERT_TRUE(DecodeMeta(message, meta, 10));
  EXPECT_EQ(message.params, (LpcParams{{"a", ""}, {"b", ""}, {"c", ""}}));
}

TEST(LpcMessage, LimitsHoldToTheByte) {
  const LpcParams params = {{"k", "v"}};
  const OutgoingMessage message = Example(params);
  const std::size_t size = EncodeHead(message, 0).size() + message.body.bytes.size();
  EXPECT_EQ(CheckLimits(message, size, 1), kOk);
  EXPECT_EQ(CheckLimits(message, size - 1, 1), kMessageTooLarge);
  EXPECT_EQ(CheckLimits(message, size, 0), kMessageTooLarge);
}

TEST(LpcMessage, IdsAreLimitedByTheirLengths) {
  const std::string longest(0xFFFF, 'i');
  const std::string longer(0x10000, 'i');
  OutgoingMessage message = Example(kParams);
  message.dst_id = longest;
  message.src_id = longest;
  EXPECT_EQ(CheckLimits(message, 1 << 20, 10), kOk);
  message.dst_id = longer;
  EXPECT_EQ(CheckLimits(message, 1 << 20, 10), kMessageTooLarge);
  message.dst_id = longest;
  message.src_id = longer;
  EXPECT_EQ(CheckLimits(message, 1 << 20, 10), kMessageTooLarge);
}

TEST(LpcMessage, NoLimitAllowsWhatTheLengthsCannotSay) {
  OutgoingMessage message = Example(kParams);
  char one = 'x';
  // Only the size is looked at.
  message.body = {std::string_view(&one, std::size_t{0x1'0000'0000})};
  EXPECT_EQ(CheckLimits(message, std::numeric_limits<std::size_t>::max(), 10), kMessageTooLarge);
}

}  // namespace
}  // namespace lpc::wire
