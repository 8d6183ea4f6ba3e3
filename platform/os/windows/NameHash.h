#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace os {

/// 16 hexadecimal digits for any text (FNV-1a, 64 bits): names of objects are short, and a backslash
/// separates in them.
inline std::string NameHash(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
  return digits;
}

}  // namespace os
