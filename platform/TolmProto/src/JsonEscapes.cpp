#include "TolmProto/JsonEscapes.h"

#include <charconv>

namespace proto {
namespace {

constexpr std::size_t kEscapeSize = 6;

/// What the escape \uXXXX at `at` stands for; 0 when there is none.
unsigned UnitAt(std::string_view json, std::size_t at) {
  if (at >= json.size() || !json.substr(at).starts_with("\\u") || json.size() - at < kEscapeSize) return 0;
  unsigned unit = 0;
  const char* const end = json.data() + at + kEscapeSize;
  const auto result = std::from_chars(json.data() + at + 2, end, unit, 16);
  return result.ptr == end ? unit : 0;
}

bool IsFirstHalf(unsigned unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsSecondHalf(unsigned unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

std::size_t FindUnpairedSurrogate(std::string_view json) {
  // A backslash stands in strings only, and in front of what it escapes.
  for (std::size_t at = json.find('\\'); at != std::string_view::npos; at = json.find('\\', at)) {
    const unsigned unit = UnitAt(json, at);
    if (IsFirstHalf(unit)) {
      if (!IsSecondHalf(UnitAt(json, at + kEscapeSize))) return at;
      at += 2 * kEscapeSize;
    } else {
      if (IsSecondHalf(unit)) return at;
      at += 2;
    }
  }
  return std::string_view::npos;
}

}  // namespace proto
