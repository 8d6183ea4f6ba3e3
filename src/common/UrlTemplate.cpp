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
constexpr std::string_view kSidName = "sid";
constexpr std::size_t kSidBytes = 32;

constexpr char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

constexpr bool IsHexDigit(char c) {
  return IsDigit(c) || (LowerAscii(c) >= 'a' && LowerAscii(c) <= 'f');
}

/// Whether extraction from a text stream into a 64-bit integer would take the whole of `segment`, and
/// give anything but -1. Leading blanks, a plus sign and leading zeros are thus no obstacle.
bool ReadsAsId(std::string_view segment) {
  const std::size_t blanks = segment.find_first_not_of(" \t\n\v\f\r");
  if (blanks == std::string_view::npos) return false;
  segment.remove_prefix(blanks);
  // from_chars knows the minus sign only.
  if (segment.front() == '+') {
    segment.remove_prefix(1);
    if (segment.empty() || !IsDigit(segment.front())) return false;
  }
  std::int64_t value = 0;
  const char* const end = segment.data() + segment.size();
  const auto [stop, error] = std::from_chars(segment.data(), end, value);
  return error == std::errc() && stop == end && value != -1;
}

void AppendPattern(std::string& out, std::string_view url) {
  out.reserve(out.size() + url.size() + 1);
  while (!url.empty()) {
    const std::size_t length = std::min(url.find('/'), url.size());
    const std::string_view segment = url.substr(0, length);
    url.remove_prefix(std::min(length + 1, url.size()));
    if (segment.empty()) continue;
    out += '/';
    if (segment.size() == kGuidBytes) {
      out += "<GUID>";
    } else if (ReadsAsId(segment)) {
      out += "<ID>";
    } else {
      out += segment;
    }
  }
}

std::string_view WithoutQuery(std::string_view url) {
  return url.substr(0, url.find('?'));
}

/// Whether the "=" at `equals` stands between a session id's name and its digits.
bool IsSidAt(std::string_view url, std::size_t equals) {
  if (equals < kSidName.size() || url.size() - equals <= kSidBytes) return false;
  const std::string_view name = url.substr(equals - kSidName.size(), kSidName.size());
  const std::string_view digits = url.substr(equals + 1, kSidBytes);
  return std::equal(name.begin(), name.end(), kSidName.begin(),
                    [](char c, char lower) { return LowerAscii(c) == lower; }) &&
         std::all_of(digits.begin(), digits.end(), IsHexDigit);
}

}  // namespace

void NormalizeUrlPattern(std::string& out, const std::string& url) {
  AppendPattern(out, url);
}

std::string CutQuery(const std::string& url) {
  return std::string(WithoutQuery(url));
}

std::string UrlLookupKey(const std::string& url) {
  std::string key;
  AppendPattern(key, WithoutQuery(url));
  for (char& c : key) c = LowerAscii(c);
  return key;
}

std::string MaskSidInUrl(const std::string& url) {
  std::string masked;
  masked.reserve(url.size());
  std::size_t done = 0;
  for (std::size_t equals = url.find('='); equals != std::string::npos; equals = url.find('=', equals + 1)) {
    if (!IsSidAt(url, equals)) continue;
    const std::size_t digits = equals + 1;
    masked.append(url, done, digits - done);
    masked += Tolm::Base::StringUtil::MaskForLog(url.substr(digits, kSidBytes),
                                                 Tolm::Base::StringUtil::kMaskModeSessionId,
                                                 Tolm::Base::StringUtil::kCodePageUtf8);
    done = digits + kSidBytes;
  }
  masked.append(url, done);
  return masked;
}

}  // namespace TolmLPCFrame
