#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>
#include <utility>

#include "TolmBase/Encrypt.h"

using Tolm::Base::Encrypt::AppendBase64;
using Tolm::Base::Encrypt::Base64Decode;
using Tolm::Base::Encrypt::Base64DecodeInPlace;
using Tolm::Base::Encrypt::Base64Encode;

namespace {

// RFC 4648, section 10.
const std::pair<const char*, const char*> kVectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

// The standard's words, bit by bit.

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string EncodedBitByBit(const std::string& bytes) {
  std::string bits;
  for (const char c : bytes) {
    for (int bit = 7; bit >= 0; --bit) bits += (c >> bit & 1) != 0 ? '1' : '0';
  }
  while (bits.size() % 6 != 0) bits += '0';
  std::string text;
  for (std::size_t at = 0; at < bits.size(); at += 6) {
    text += kAlphabet[std::stoul(bits.substr(at, 6), nullptr, 2)];
  }
  while (text.size() % 4 != 0) text += '=';
  return text;
}

std::string DecodedBitByBit(const std::string& text) {
  if (text.size() % 4 != 0) return {};
  std::size_t end = text.size();
  while (end > 0 && text.size() - end < 2 && text[end - 1] == '=') --end;
  const std::string alphabet = kAlphabet;
  std::string bits;
  for (std::size_t at = 0; at < end; ++at) {
    const std::size_t value = alphabet.find(text[at]);
    if (value == std::string::npos) return {};
    for (int bit = 5; bit >= 0; --bit) bits += (value >> bit & 1) != 0 ? '1' : '0';
  }
  std::string bytes;
  for (std::size_t at = 0; at + 8 <= bits.size(); at += 8) {
    bytes += static_cast<char>(std::stoul(bits.substr(at, 8), nullptr, 2));
  }
  return bytes;
}

std::string RandomBytes(std::mt19937& random, std::size_t count) {
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
  return bytes;
}

TEST(Base64, BytesOfEveryLengthBecomeWhatTheirBitsSay) {
  std::mt19937 random(64);
  for (std::size_t length = 0; length <= 300; ++length) {
    const std::string bytes = RandomBytes(random, length);
    const std::string text = EncodedBitByBit(bytes);
    ASSERT_EQ(Base64Encode(bytes), text);
    ASSERT_EQ(Base64Decode(text), bytes);
    std::string appended = "before";
    AppendBase64(appended, bytes);
    ASSERT_EQ(appended, "before" + text);
    std::string decoded = text;
    Base64DecodeInPlace(decoded);
    ASSERT_EQ(decoded, bytes);
  }
}

TEST(Base64, EveryByteAtEveryPlaceOfALongTextIsReadOrForeign) {
  for (std::size_t at = 0; at < 64; ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string text(64, 'T');
      text[at] = static_cast<char>(byte);
      ASSERT_EQ(Base64Decode(text), DecodedBitByBit(text)) << "byte " << byte << " at " << at;
    }
  }
}

TEST(Base64, TextsThatAreNotWhatTheyWereAreReadAsTheirBitsSay) {
  std::mt19937 random(4711);
  for (int round = 0; round < 3000; ++round) {
    std::string text = EncodedBitByBit(RandomBytes(random, 1 + random() % 120));
    for (int changes = 1 + static_cast<int>(random() % 2); changes > 0; --changes) {
      const std::string others = "=AZaz09+/-_\n";
      text[random() % text.size()] = others[random() % others.size()];
    }
    if (random() % 4 == 0) text.resize(random() % text.size());
    ASSERT_EQ(Base64Decode(text), DecodedBitByBit(text)) << text;
    std::string decoded = text;
    Base64DecodeInPlace(decoded);
    ASSERT_EQ(decoded, DecodedBitByBit(text)) << text;
  }
}

TEST(Base64, EncodesTheVectorsOfTheStandard) {
  for (const auto& [bytes, text] : kVectors) EXPECT_EQ(Base64Encode(bytes), text);
}

TEST(Base64, DecodesTheVectorsOfTheStandard) {
  for (const auto& [bytes, text] : kVectors) EXPECT_EQ(Base64Decode(text), bytes);
}

TEST(Base64, UsesTheStandardAlphabetForAllSixBits) {
  std::string bytes;
  for (unsigned i = 0; i < 64; i += 4) {
    const unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
    bytes += static_cast<char>(group >> 16);
    bytes += static_cast<char>(group >> 8 & 0xFF);
    bytes += static_cast<char>(group & 0xFF);
  }
  const std::string alphabet = kAlphabet;
  EXPECT_EQ(Base64Encode(bytes), alphabet);
  EXPECT_EQ(Base64Decode(alphabet), bytes);
}

TEST(Base64, EveryByteAtEveryLengthComesBack) {
  std::string bytes;
  for (int length = 0; length < 3 * 256 + 2; ++length) {
    EXPECT_EQ(Base64Decode(Base64Encode(bytes)), bytes) << length << " bytes";
    bytes += static_cast<char>(length % 256);
  }
}

TEST(Base64, LongTextsHaveNoLineBreaks) {
  const std::string text = Base64Encode(std::string(10'000, 'x'));
  EXPECT_EQ(text.size(), 13'336U);
  EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
}

TEST(Base64, AForeignCharacterAnywhereYieldsTheEmptyText) {
  const std::string good = "Zm9vYmFy";
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char foreign : {' ', '\n', '\r', '-', '_', '.', '\0', '\x80', '\xFF'}) {
      std::string bad = good;
      bad[at] = foreign;
      EXPECT_EQ(Base64Decode(bad), "") << "byte " << int{foreign} << " at " << at;
    }
  }
}

TEST(Base64, AWrongLengthYieldsTheEmptyText) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zm9vY", "Zm9vYg", "Zm9vYg=", "Zm9vYmE", "Zm9v\n"}) {
    EXPECT_EQ(Base64Decode(text), "") << text;
  }
}

TEST(Base64, MisplacedPaddingYieldsTheEmptyText) {
  for (const char* text : {"=", "====", "Z===", "=m9v", "Z=9v", "Zm=v", "Zg==Zg==", "Zg==Zm9v", "Zm9v===="}) {
    EXPECT_EQ(Base64Decode(text), "") << text;
  }
}

TEST(Base64, TheUnusedBitsOfTheLastCharacterMayHaveAnyValue) {
  for (const char* text : {"Zg==", "Zh==", "Zv=="}) EXPECT_EQ(Base64Decode(text), "f") << text;
  for (const char* text : {"Zm8=", "Zm9=", "Zm-="}) EXPECT_EQ(Base64Decode(text), text[2] == '-' ? "" : "fo");
}

}  // namespace
