// The parameter of a query against a regular expression, in a url that is cut into its two parts.

#include <regex>

#include "common/UrlQuery.h"
#include "common/UrlTemplate.h"
#include "support/Input.h"

namespace {

/// The last piece that is "<name>=...".
std::string ByRegex(const std::string& query, const std::string& name) {
  static const std::regex pieces("[^&]*");
  std::string value;
  for (std::sregex_iterator piece(query.begin(), query.end(), pieces), end; piece != end; ++piece) {
    const std::string text = piece->str();
    if (text.starts_with(name + "=")) value = text.substr(name.size() + 1);
  }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  const std::string path = TolmLPCFrame::CutQuery(url);
  const std::string query = url.substr(std::min(path.size() + 1, url.size()));
  fuzz::Require(path == url || path + "?" + query == url, "a url is its path, and its query behind a mark");
  for (const char* const name : {"MT", "", "SID"}) {
    fuzz::Require(TolmLPCFrame::QueryParameter(query, name) == ByRegex(query, name),
                  "the parameter is that of the last piece with its name");
  }
  return 0;
}
