// The scanner of url patterns against what it stands for, a text stream's integers; and the key of a look-up,
// which is made in one go, against the steps that it stands for.

#include <locale>
#include <sstream>

#include "TolmBase/StringUtil.h"
#include "common/UrlTemplate.h"
#include "support/Input.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  std::string pattern;
  TolmLPCFrame::NormalizeUrlPattern(pattern, url);
  fuzz::Require(pattern == PatternByStream(url), "the pattern is that of a text stream");

  const std::string cut = TolmLPCFrame::CutQuery(url);
  fuzz::Require(url.starts_with(cut) && cut.find('?') == std::string::npos, "a url is cut before its query");
  std::string key;
  TolmLPCFrame::NormalizeUrlPattern(key, cut);
  fuzz::Require(TolmLPCFrame::UrlLookupKey(url).text() == Tolm::Base::StringUtil::LowerCase(key),
                "the key of a look-up is the pattern in lower case");
  return 0;
}
