// The masking of session ids against the regular expression that it stands for.

#include <regex>

#include "TolmBase/StringUtil.h"
#include "common/UrlTemplate.h"
#include "support/Input.h"

namespace {

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
  const std::string url(reinterpret_cast<const char*>(data), size);
  const std::string masked = TolmLPCFrame::MaskSidInUrl(url);
  fuzz::Require(masked == MaskByRegex(url), "it masks what the expression finds");
  fuzz::Require(Tolm::Base::StringUtil::MaskSessionIds(url) == masked,
                "a text with urls is masked as a url is");
  fuzz::Require(TolmLPCFrame::MaskSidInUrl(masked) == masked, "nothing is left to mask");
  return 0;
}
