#include "TolmBase/Utf8Check.h"

#include <cstring>

namespace Tolm::Base {

bool Utf8Check::Add(const char* data, std::size_t size) {
  const char* const end = data + size;
  while (data < end) {
    if (missing_ == 0) {
      // Most text is plain ASCII: eight bytes at a time.
      std::uint64_t eight = 0;
      while (end - data >= 8) {
        std::memcpy(&eight, data, 8);
        if ((eight & 0x8080808080808080U) != 0) break;
        data += 8;
      }
      if (data == end) break;
    }
    const auto byte = static_cast<std::uint8_t>(*data++);
    if (missing_ > 0) {
      if (byte < lowest_ || byte > highest_) return false;
      --missing_;
      lowest_ = 0x80;
      highest_ = 0xBF;
      continue;
    }
    if (byte < 0x80) continue;
    if (byte < 0xC2 || byte > 0xF4) return false;
    missing_ = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
    // The first byte behind these decides whether the form is the shortest, a surrogate, or too high.
    if (byte == 0xE0) lowest_ = 0xA0;
    if (byte == 0xED) highest_ = 0x9F;
    if (byte == 0xF0) lowest_ = 0x90;
    if (byte == 0xF4) highest_ = 0x8F;
  }
  return true;
}

}  // namespace Tolm::Base
