#include "common/UrlTemplate.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "TolmBase/StringUtil.h"

namespace TolmLPCFrame {

namespace {

constexpr std::size_t kGuidBytes = 32;

constexpr char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Whether extraction from a text stream into a 64-bit integer would take the whole of `segment`, and
/// give anything but -1. Leading blanks, a plus sign and leading zeros are thus no obstacle.
bool ReadsAsId(std::string_view segment) {
  // Nearly every segment is a name or a plain number, of a size that no 64-bit integer is too small for.
  if (!IsDigit(segment.back())) return false;
  constexpr std::size_t kSurelyFits = 18;
  if (segment.size() <= kSurelyFits && std::all_of(segment.begin(), segment.end(), IsDigit)) return true;

  const std::size_t blanks = segment.find_first_not_of(" \t\n\v\f\r");
  segment.remove_prefix(blanks);
  // from_chars knows the minus sign only.
  if (segment.front() == '+') {
    segment.remove_prefix(1);
    if (!IsDigit(segment.front())) return false;
  }
  std::int64_t value = 0;
  const char* const end = segment.data() + segment.size();
  const auto [stop, error] = std::from_chars(segment.data(), end, value);
  return error == std::errc() && stop == end && value != -1;
}

/// No pattern is longer: a segment of one digit and the "/" before it are two bytes, their pattern is five.
constexpr std::size_t LongestPattern(std::size_t url_bytes) {
  return (url_bytes / 2 + 1) * 5;
}

/// How a pattern is made of a url.
struct AsGiven {
  static constexpr std::string_view kGuid = "/<GUID>";
  static constexpr std::string_view kId = "/<ID>";
  static constexpr bool IsEnd(char /*c*/) { return false; }
  static constexpr char Change(char c) { return c; }
};
struct ForLookUp {
  static constexpr std::string_view kGuid = "/<guid>";
  static constexpr std::string_view kId = "/<id>";
  static constexpr bool IsEnd(char c) { return c == '?'; }
  static constexpr char Change(char c) { return LowerAscii(c); }
};

/// The pattern of `url`, which is put into `room`.
template <typename Rules>
std::string_view MakePattern(PatternRoom& room, std::string_view url) {
  char* const first = room.ForUrlOf(url.size());
  char* out = first;
  const char* at = url.data();
  const char* const end = at + url.size();
  while (at != end && !Rules::IsEnd(*at)) {
    if (*at == '/') {
      ++at;
      continue;
    }
    // Copied and measured in one go; what proves to be an id is written over.
    char* const begin = out;
    const char* const from = at;
    *out++ = '/';
    while (at != end && *at != '/' && !Rules::IsEnd(*at)) *out++ = Rules::Change(*at++);
    const std::string_view segment(from, static_cast<std::size_t>(at - from));
    if (segment.size() == kGuidBytes) {
      out = std::copy(Rules::kGuid.begin(), Rules::kGuid.end(), begin);
    } else if (ReadsAsId(segment)) {
      out = std::copy(Rules::kId.begin(), Rules::kId.end(), begin);
    }
  }
  return {first, static_cast<std::size_t>(out - first)};
}

}  // namespace

char* PatternRoom::ForUrlOf(std::size_t url_bytes) {
  const std::size_t bytes = LongestPattern(url_bytes);
  if (bytes <= sizeof near_) return near_;
  far_ = std::make_unique_for_overwrite<char[]>(bytes);
  return far_.get();
}

void NormalizeUrlPattern(std::string& out, std::string_view url) {
  PatternRoom room;
  out += MakePattern<AsGiven>(room, url);
}

std::string CutQuery(const std::string& url) {
  return url.substr(0, url.find('?'));
}

UrlLookupKey::UrlLookupKey(std::string_view url) : text_(MakePattern<ForLookUp>(room_, url)) {}

std::string MaskSidInUrl(const std::string& url) {
  return Tolm::Base::StringUtil::MaskSessionIds(url);
}

}  // namespace TolmLPCFrame
