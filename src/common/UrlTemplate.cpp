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
constexpr std::string_view kSidName = "sid=";
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

/// Whether `text` begins with a session id's name and its digits.
bool BeginsWithSid(std::string_view text) {
  if (text.size() < kSidName.size() + kSidBytes) return false;
  for (std::size_t i = 0; i < kSidName.size(); ++i) {
    if (LowerAscii(text[i]) != kSidName[i]) return false;
  }
  for (const char c : text.substr(kSidName.size(), kSidBytes)) {
    if (!IsHexDigit(c)) return false;
  }
  return true;
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
  std::string_view rest = url;
  while (!rest.empty()) {
    if (!BeginsWithSid(rest)) {
      masked += rest.front();
      rest.remove_prefix(1);
      continue;
    }
    masked += rest.substr(0, kSidName.size());
    masked += Tolm::Base::StringUtil::MaskForLog(std::string(rest.substr(kSidName.size(), kSidBytes)),
                                                 Tolm::Base::StringUtil::kMaskModeSessionId,
                                                 Tolm::Base::StringUtil::kCodePageUtf8);
    rest.remove_prefix(kSidName.size() + kSidBytes);
  }
  return masked;
}

}  // namespace TolmLPCFrame
