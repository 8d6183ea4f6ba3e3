#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tolm::Base {

/// Whether bytes that arrive in pieces are UTF-8 (RFC 3629: shortest forms only, no surrogates, nothing
/// above U+10FFFF).
class Utf8Check {
 public:
  /// False as soon as no continuation could make it valid. Not to be called again after that.
  bool Add(const char* data, std::size_t size);
  /// Whether no character is left half.
  bool IsWhole() const { return missing_ == 0; }
  void Reset() { *this = Utf8Check(); }

 private:
  int missing_ = 0;  // bytes of the character that are still to come
  // What the next of them may be.
  std::uint8_t lowest_ = 0x80;
  std::uint8_t highest_ = 0xBF;
};

/// The same for bytes that are all there.
inline bool IsUtf8(std::string_view bytes) {
  Utf8Check check;
  return check.Add(bytes.data(), bytes.size()) && check.IsWhole();
}

}  // namespace Tolm::Base
