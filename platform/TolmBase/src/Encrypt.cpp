#include "TolmBase/Encrypt.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tolm::Base::Encrypt {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';
constexpr std::uint8_t kForeign = 0xFF;

constexpr std::array<std::uint8_t, 256> kValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kForeign);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

std::uint32_t ByteAt(std::string_view bytes, std::size_t at) {
  return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

}  // namespace

std::string Base64Encode(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4, kPadding);
  std::size_t out = 0;
  for (std::size_t in = 0; in < bytes.size(); in += 3) {
    const std::uint32_t group = ByteAt(bytes, in) << 16 | ByteAt(bytes, in + 1) << 8 | ByteAt(bytes, in + 2);
    // A last group of one or two bytes fills two or three characters; the rest stays padding.
    const std::size_t characters = bytes.size() - in < 3 ? bytes.size() - in + 1 : 4;
    for (std::size_t i = 0; i < characters; ++i) text[out + i] = kAlphabet[group >> (18 - 6 * i) & 0x3F];
    out += 4;
  }
  return text;
}

std::string Base64Decode(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return {};
  std::size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == kPadding) ++padding;

  const std::size_t characters = text.size() - padding;
  std::string bytes(text.size() / 4 * 3 - padding, '\0');
  std::size_t out = 0;
  std::uint32_t bits = 0;
  for (std::size_t in = 0; in < characters; ++in) {
    const std::uint8_t value = kValues[static_cast<unsigned char>(text[in])];
    // Padding anywhere but at the end is foreign too.
    if (value == kForeign) return {};
    bits = bits << 6 | value;
    // Every character but the first of a group completes one more byte.
    if (in % 4 != 0) bytes[out++] = static_cast<char>(bits >> (6 - 2 * (in % 4)) & 0xFF);
  }
  return bytes;
}

}  // namespace Tolm::Base::Encrypt
