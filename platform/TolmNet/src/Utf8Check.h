#pragma once

#include <cstddef>
#include <cstdint>

namespace Tolm::Net {

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

}  // namespace Tolm::Net
