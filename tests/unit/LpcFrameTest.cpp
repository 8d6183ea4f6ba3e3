#include "wire/Frame.h"

#include <gtest/gtest.h>

#include <string>

#include "wire/Bytes.h"

namespace lpc::wire {
namespace {

using std::string_literals::operator""s;

TEST(LpcFrame, AHeaderIsSixteenBytesLittleEndian) {
  FrameHeader header;
  header.payload_size = 0x04030201;
  header.type = FrameType::kRequest;
  header.flags = 0x02;
  header.stream = 0x0605;
  header.message_id = 0x0E0D0C0B0A090807;
  const HeaderBytes bytes = EncodeHeader(header);
  EXPECT_EQ(std::string(bytes.data(), bytes.size()),
            "\x01\x02\x03\x04\x10\x02\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E"s);
  const FrameHeader back = DecodeHeader(bytes.data());
  EXPECT_EQ(back.payload_size, header.payload_size);
  EXPECT_EQ(back.type, header.type);
  EXPECT_EQ(back.flags, header.flags);
  EXPECT_EQ(back.stream, header.stream);
  EXPECT_EQ(back.message_id, header.message_id);
}

TEST(LpcFrame, OnlyFourTypesCarryMessages) {
  for (int type = 0; type < 256; ++type) {
    EXPECT_EQ(CarriesMessage(static_cast<FrameType>(type)), type >= 16 && type <= 19) << type;
  }
}

TEST(LpcFrame, AHelloComesBackAndIsNothingWhenCutShort) {
  Hello hello;
  hello.lowest_version = 3;
  hello.highest_version = 0xFFFE;
  hello.capabilities = 0x80000001;
  hello.id = "some id";
  const std::string payload = EncodeHello(hello);
  for (std::size_t size = 0; size < payload.size(); ++size) {
    Hello cut;
    EXPECT_FALSE(DecodeHello(cut, std::string_view(payload).substr(0, size))) << size;
  }
  for (const std::string& behind : {""s, "x"s, std::string(500, '\0')}) {
    Hello back;
    ASSERT_TRUE(DecodeHello(back, payload + behind));
    EXPECT_EQ(back.lowest_version, hello.lowest_version);
    EXPECT_EQ(back.highest_version, hello.highest_version);
    EXPECT_EQ(back.capabilities, hello.capabilities);
    EXPECT_EQ(back.id, hello.id);
  }
}

TEST(LpcFrame, AHelloNeedsEveryByteOfItsMagic) {
  const std::string payload = EncodeHello({});
  for (std::size_t i = 0; i < 4; ++i) {
    std::string broken = payload;
    broken[i] = static_cast<char>(broken[i] ^ 1);
    Hello hello;
    EXPECT_FALSE(DecodeHello(hello, broken)) << i;
  }
}

TEST(LpcFrame, AWelcomeComesBackAndIsNothingWhenCutShort) {
  const std::string payload = EncodeWelcome({7, 0x12345678, 0x1122334455667788});
  for (std::size_t size = 0; size < payload.size(); ++size) {
    Welcome cut;
    EXPECT_FALSE(DecodeWelcome(cut, std::string_view(payload).substr(0, size))) << size;
  }
  Welcome back;
  ASSERT_TRUE(DecodeWelcome(back, payload + "of the future"));
  EXPECT_EQ(back.version, 7);
  EXPECT_EQ(back.capabilities, 0x12345678u);
  EXPECT_EQ(back.max_message_bytes, 0x1122334455667788u);
}

TEST(LpcFrame, ANoticeComesBackAndIsNothingWhenCutShort) {
  const std::string payload = EncodeNotice({11, "a reason"});
  for (std::size_t size = 0; size < payload.size(); ++size) {
    Notice cut;
    EXPECT_FALSE(DecodeNotice(cut, std::string_view(payload).substr(0, size))) << size;
  }
  Notice back;
  ASSERT_TRUE(DecodeNotice(back, payload));
  EXPECT_EQ(back.code, 11);
  EXPECT_EQ(back.reason, "a reason");
}

TEST(LpcFrame, ANoticeFitsIntoAControlFrameHoweverLongItsReason) {
  const std::string payload = EncodeNotice({1, std::string(100'000, 'r')});
  EXPECT_LE(payload.size(), kMaxControlPayload);
  Notice back;
  ASSERT_TRUE(DecodeNotice(back, payload));
  EXPECT_EQ(back.reason, std::string(back.reason.size(), 'r'));
}

TEST(LpcFrame, ANoticeBringsNoControlCharactersIn) {
  Notice back;
  ASSERT_TRUE(DecodeNotice(back, EncodeNotice({1, "a\nb\x1b[2Jc\0d\x7f"s})));
  EXPECT_EQ(back.reason, "a?b?[2Jc?d?");
}

TEST(LpcFrame, PeerIds) {
  for (const std::string& id : {"a"s, "00"s, " "s, "a b"s, "\xC3\xA4"s, "\xFF"s, std::string(255, 'x')}) {
    EXPECT_TRUE(IsPeerId(id)) << id;
  }
  for (const std::string& id : {""s, "0"s, "\0"s, "a\nb"s, "a\x1f"s, "\x7f"s, std::string(256, 'x')}) {
    EXPECT_FALSE(IsPeerId(id)) << id;
  }
}

TEST(LpcBytes, AReaderThatRanOutGivesNothingMore) {
  ByteReader reader(std::string_view("\x05\x00xy", 4));
  EXPECT_EQ(reader.Text<std::uint16_t>(), "") << "two bytes are there, five were promised";
  EXPECT_FALSE(reader.ok());
  EXPECT_EQ(reader.Number<std::uint8_t>(), 0);
  EXPECT_FALSE(reader.ok());
  EXPECT_TRUE(reader.at_end());
}

}  // namespace
}  // namespace lpc::wire
