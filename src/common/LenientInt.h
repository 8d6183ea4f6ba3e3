#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>

namespace TolmLPCFrame {

/// The number at the beginning of `text`: blanks, a sign and decimal digits, each optional; what follows
/// is ignored. 0 without digits; the nearest int when the number does not fit.
constexpr int LenientInt(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);

  constexpr std::int64_t kBeyondEveryInt = std::int64_t{1} << 40;
  std::int64_t magnitude = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    magnitude = std::min(magnitude * 10 + (c - '0'), kBeyondEveryInt);
  }
  return static_cast<int>(std::clamp<std::int64_t>(
      negative ? -magnitude : magnitude, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace TolmLPCFrame
