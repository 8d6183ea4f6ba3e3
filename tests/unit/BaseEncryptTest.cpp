#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>

#include "TolmBase/Encrypt.h"

using Tolm::Base::Encrypt::Base64Decode;
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
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
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
