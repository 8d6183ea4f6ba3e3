#include "TolmBase/Encrypt.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "Base64Blocks.h"

namespace Tolm::Base::Encrypt {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';
constexpr std::uint8_t kForeign = 0xFF;
constexpr std::uint8_t kLastValue = 63;

using Values = std::array<std::uint8_t, 256>;

constexpr Values MakeValues() {
  Values values{};
  values.fill(kForeign);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}

constexpr Values kValues = MakeValues();

using Pairs = std::array<std::array<char, 2>, 1u << 12>;

constexpr Pairs MakePairs() {
  Pairs pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 0x3F]};
  return pairs;
}

/// The characters of every twelve bits: two at once.
constexpr Pairs kPairs = MakePairs();

std::uint32_t ByteAt(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}

std::uint32_t ValueAt(std::string_view text, std::size_t at) {
  return kValues[static_cast<unsigned char>(text[at])];
}

void Put(char* to, std::uint32_t twelve_bits) {
  const auto& pair = kPairs[twelve_bits & 0xFFF];
  to[0] = pair[0];
  to[1] = pair[1];
}

/// Writes the bytes behind `text` to `bytes`, where there is room for three quarters of it; how many they
/// are, none when it is no Base64.
std::size_t Decode(char* bytes, std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return 0;
  std::size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == kPadding) ++padding;

  const std::size_t whole = padding == 0 ? text.size() : text.size() - 4;
  std::size_t in = DecodeBlocks(bytes, text.data(), whole);
  char* out = bytes + in / 4 * 3;
  // Padding anywhere but at the end is foreign too. What is foreign has bits that no value has.
  std::uint32_t seen = 0;
  for (; in < whole; in += 4, out += 3) {
    const std::uint32_t values[] = {ValueAt(text, in), ValueAt(text, in + 1), ValueAt(text, in + 2),
                                    ValueAt(text, in + 3)};
    seen |= values[0] | values[1] | values[2] | values[3];
    const std::uint32_t group = values[0] << 18 | values[1] << 12 | values[2] << 6 | values[3];
    out[0] = static_cast<char>(group >> 16 & 0xFF);
    out[1] = static_cast<char>(group >> 8 & 0xFF);
    out[2] = static_cast<char>(group & 0xFF);
  }
  if (padding != 0) {
    const std::uint32_t values[] = {ValueAt(text, in), ValueAt(text, in + 1),
                                    padding == 1 ? ValueAt(text, in + 2) : 0};
    seen |= values[0] | values[1] | values[2];
    const std::uint32_t group = values[0] << 18 | values[1] << 12 | values[2] << 6;
    out[0] = static_cast<char>(group >> 16 & 0xFF);
    if (padding == 1) out[1] = static_cast<char>(group >> 8 & 0xFF);
  }
  return seen > kLastValue ? 0 : text.size() / 4 * 3 - padding;
}

}  // namespace

void AppendBase64(std::string& text, std::string_view bytes) {
  const std::size_t before = text.size();
  text.resize(before + (bytes.size() + 2) / 3 * 4, kPadding);
  std::size_t in = EncodeBlocks(text.data() + before, bytes.data(), bytes.size());
  char* out = text.data() + before + in / 3 * 4;
  for (; bytes.size() - in >= 3; in += 3, out += 4) {
    const std::uint32_t group = ByteAt(bytes, in) << 16 | ByteAt(bytes, in + 1) << 8 | ByteAt(bytes, in + 2);
    Put(out, group >> 12);
    Put(out + 2, group);
  }
  // A last group of one or two bytes fills two or three characters; the rest stays padding.
  const std::size_t left = bytes.size() - in;
  if (left == 0) return;
  const std::uint32_t group = ByteAt(bytes, in) << 16 | (left == 2 ? ByteAt(bytes, in + 1) << 8 : 0);
  Put(out, group >> 12);
  if (left == 2) out[2] = kAlphabet[group >> 6 & 0x3F];
}

std::string Base64Encode(std::string_view bytes) {
  std::string text;
  AppendBase64(text, bytes);
  return text;
}

std::string Base64Decode(std::string_view text) {
  std::string bytes(text.size() / 4 * 3, '\0');
  bytes.resize(Decode(bytes.data(), text));
  return bytes;
}

void Base64DecodeInPlace(std::string& text) {
  // No byte is written before the characters that it is made of, and those before them, have been read.
  text.resize(Decode(text.data(), text));
}

}  // namespace Tolm::Base::Encrypt
