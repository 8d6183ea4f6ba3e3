// Any text as Base64, at every length that the blocks of the processor know: the bytes are those of a plain
// reader, in place as well, and any bytes come back.

#include <optional>

#include "TolmBase/Encrypt.h"
#include "support/Input.h"

namespace {

std::optional<unsigned> ValueOf(char c) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::size_t at = kAlphabet.find(c);
  if (at == std::string_view::npos) return std::nullopt;
  return static_cast<unsigned>(at);
}

/// Character by character, as RFC 4648 has it; the empty text for everything that is not Base64.
std::string DecodePlainly(std::string_view text) {
  if (text.size() % 4 != 0) return {};
  if (text.ends_with("==")) {
    text.remove_suffix(2);
  } else if (text.ends_with('=')) {
    text.remove_suffix(1);
  }
  std::string bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    const auto value = ValueOf(c);
    if (!value) return {};
    bits = (bits << 6 | *value) & 0xFFFF;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xFF);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace Encrypt = Tolm::Base::Encrypt;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string bytes = Encrypt::Base64Decode(text);
  fuzz::Require(bytes == DecodePlainly(text), "the bytes are those of a plain reader");
  std::string in_place = text;
  Encrypt::Base64DecodeInPlace(in_place);
  fuzz::Require(in_place == bytes, "the place does not matter");

  std::string behind = "before";
  Encrypt::AppendBase64(behind, text);
  fuzz::Require(behind == "before" + Encrypt::Base64Encode(text), "it is appended as it is made");
  fuzz::Require(Encrypt::Base64Decode(Encrypt::Base64Encode(text)) == text, "any bytes come back");
  fuzz::Require(DecodePlainly(Encrypt::Base64Encode(text)) == text, "any bytes come back to others");
  return 0;
}
