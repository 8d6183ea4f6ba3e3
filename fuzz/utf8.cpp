// Any bytes as UTF-8, in any pieces, against a reader that takes one character at a time as RFC 3629 has
// them.

#include "TolmBase/Utf8Check.h"

#include "support/Input.h"

namespace {

/// The bytes of the character that `text` begins with; 0 when it is none.
std::size_t CharacterAt(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < 0x80) return 1;
  const std::size_t length = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : byte(0) >= 0xC0 ? 2 : 0;
  if (length == 0 || text.size() < length || byte(0) > 0xF7) return 0;
  std::uint32_t code = byte(0) & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code >= kLeast[length] && code <= 0x10FFFF && !is_surrogate ? length : 0;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = CharacterAt(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool Check(std::string_view text, std::size_t piece) {
  Tolm::Base::Utf8Check check;
  for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
    if (!check.Add(text.data(), std::min(piece, text.size()))) return false;
  }
  return check.IsWhole();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const bool expected = IsUtf8(text);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{8}, size + 1}) {
    fuzz::Require(Check(text, piece) == expected, "it is UTF-8 for both, whatever the pieces are");
  }
  return 0;
}
