// The hand-written scanners against what they stand for: a text stream's integers, a regular expression.

#include <cstdint>
#include <cstdlib>
#include <locale>
#include <regex>
#include <sstream>
#include <string>

#include "common/UrlTemplate.h"

namespace {

std::string PatternByStream(const std::string& url) {
  std::string pattern;
  std::istringstream segments(url);
  for (std::string segment; std::getline(segments, segment, '/');) {
    if (segment.empty()) continue;
    std::istringstream number(segment);
    number.imbue(std::locale::classic());
    std::int64_t value = 0;
    const bool whole = (number >> value) && number.peek() == std::istringstream::traits_type::eof();
    pattern += '/';
    pattern += segment.size() == 32 ? "<GUID>" : whole && value != -1 ? "<ID>" : segment;
  }
  return pattern;
}

std::string MaskByRegex(const std::string& url) {
  static const std::regex sid("(SID=)([0-9a-fA-F]{32})", std::regex::icase);
  std::string masked = url;
  for (std::sregex_iterator match(url.begin(), url.end(), sid), end; match != end; ++match) {
    masked.replace(static_cast<std::size_t>(match->position(2)), 32, 32, '*');
  }
  return masked;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;  // the regular expression is slow
  const std::string url(reinterpret_cast<const char*>(data), size);
  std::string pattern;
  TolmLPCFrame::NormalizeUrlPattern(pattern, url);
  if (pattern != PatternByStream(url)) std::abort();
  if (TolmLPCFrame::MaskSidInUrl(url) != MaskByRegex(url)) std::abort();
  return 0;
}
