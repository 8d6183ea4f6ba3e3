#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "Sets.h"
#include "TolmBase/Encrypt.h"
#include "Verdicts.h"

namespace trust {
namespace {

namespace encrypt = Tolm::Base::Encrypt;

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// RFC 4648, section 10.
constexpr std::string_view kVectors[][2] = {{"", ""},
                                            {"f", "Zg=="},
                                            {"fo", "Zm8="},
                                            {"foo", "Zm9v"},
                                            {"foob", "Zm9vYg=="},
                                            {"fooba", "Zm9vYmE="},
                                            {"foobar", "Zm9vYmFy"}};

/// What is no Base64 of section 4, which the section 3.3 has rejected. The empty text stands for that.
constexpr std::string_view kMalformed[] = {
    "Z",      "Zg",       "Zg=",        "Zm9",       "Zm9vY",     "Zm9vYg",     "Zm9vYg=",       "Zm9vYmE",
    "=",      "==",       "===",        "====",      "Z===",      "=Zg=",       "Z=g=",          "=m9v",
    "Z=9v",   "Zm=v",     "Zg=v",       "Zg==Zg==",  "Zm8=Zm8=",  "Zg==Zm9v",   "Zm9v====",      "Zm9v=",
    "Zm9v==", "Zg===",    "Zg====",     "Zm8==",     "Zm9vYmFy=", " Zm9v",      "Zm9v ",         "Zm 9v",
    "Zm9v\n", "Zm9v\r\n", "Zm9v\nYmFy", "Zm9vYmF\n", "Z\tm9",     "Zm-v",       "Zm_v",          "-_-_",
    "Zm,v",   "Zm.v",     "Zm*v",       "Zm9v!",     "Zm%3D",     "Zm\xC3\xA4", "\xEF\xBB\xBFZ", "Zg\xFF=",
};

/// The rule in other words: the bits of all bytes in a row, six to a character, zeros behind the last, and
/// padding up to four.
std::string Encoded(std::string_view bytes) {
  std::string text;
  unsigned bits = 0;
  int count = 0;
  const auto put = [&](unsigned bit) {
    bits = bits << 1 | bit;
    if (++count < 6) return;
    text += kAlphabet[bits];
    bits = 0;
    count = 0;
  };
  for (const char c : bytes) {
    for (int bit = 7; bit >= 0; --bit) put(static_cast<unsigned char>(c) >> bit & 1U);
  }
  while (count != 0) put(0);
  while (text.size() % 4 != 0) text += '=';
  return text;
}

/// Ours decode what they are given, in one way or the other.
std::string Decoded(std::string_view text) {
  std::string in_place(text);
  encrypt::Base64DecodeInPlace(in_place);
  const std::string bytes = encrypt::Base64Decode(text);
  return in_place == bytes ? bytes : "two answers";
}

void Expect(Verdicts& verdicts, const std::string& got, std::string_view expected, std::string_view what) {
  verdicts.Expect(got == expected, what, expected, got);
}

void TryBytes(Verdicts& verdicts, const std::string& bytes) {
  const std::string text = Encoded(bytes);
  Expect(verdicts, encrypt::Base64Encode(bytes), text, "encoded " + bytes);
  std::string appended = "=";
  encrypt::AppendBase64(appended, bytes);
  Expect(verdicts, appended, "=" + text, "appended " + bytes);
  Expect(verdicts, Decoded(text), bytes, "decoded " + text);
}

/// A good text of 64 characters, which blocks of any width take part of, with one character that is none.
void TryStrays(Verdicts& verdicts, std::mt19937& random) {
  std::string good;
  for (int i = 0; i < 64; ++i) good += kAlphabet[random() % kAlphabet.size()];
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string bad = good;
      bad[at] = static_cast<char>(byte);
      const bool is_good = kAlphabet.find(bad[at]) != std::string_view::npos;
      // Padding in the last place makes it a shorter text.
      const std::string got = Decoded(bad);
      if (is_good) {
        verdicts.Expect(got.size() == 48 && Encoded(got) == bad, bad, "what it was made of", got);
      } else if (byte == '=' && at == good.size() - 1) {
        verdicts.Expect(got.size() == 47, bad, "47 bytes", got);
      } else {
        Expect(verdicts, got, "", bad);
      }
    }
  }
}

/// The bits of the last character that belong to no byte. Section 3.5 leaves it to the decoder; ours has them
/// ignored.
void TrySpareBits(Verdicts& verdicts) {
  for (const char last : kAlphabet) {
    const std::string one = std::string("Z") + last + "==";
    const std::string two = std::string("Zm") + last + "=";
    const auto value = kAlphabet.find(last);
    // 'Z' is 25, 'm' is 38.
    const std::string first{static_cast<char>(25 << 2 | static_cast<int>(value >> 4))};
    const std::string second =
        std::string("f") + static_cast<char>((38 & 0xF) << 4 | static_cast<int>(value >> 2));
    Expect(verdicts, Decoded(one), first, one);
    Expect(verdicts, Decoded(two), second, two);
  }
}

}  // namespace

void RunBase64() {
  Verdicts verdicts("base64");
  std::mt19937 random(4648);
  for (const auto& [bytes, text] : kVectors) {
    Expect(verdicts, Encoded(bytes), text, "the test itself");
    TryBytes(verdicts, std::string(bytes));
  }
  for (std::size_t length = 0; length <= 200; ++length) {
    for (int round = 0; round < 4; ++round) {
      std::string bytes(length, '\0');
      for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
      TryBytes(verdicts, bytes);
      // Cut anywhere but at a group's end, it is none.
      const std::string text = Encoded(bytes);
      for (std::size_t cut = 1; cut <= 3 && cut < text.size(); ++cut) {
        const std::string bad = text.substr(0, text.size() - cut);
        Expect(verdicts, Decoded(bad), "", bad);
      }
    }
    for (const char fill : {'\0', '\xFF', '\x55'}) TryBytes(verdicts, std::string(length, fill));
  }
  for (const std::string_view text : kMalformed) Expect(verdicts, Decoded(text), "", text);
  TryStrays(verdicts, random);
  TrySpareBits(verdicts);
  verdicts.Print(20'000);
}

}  // namespace trust
