#include "UrlTable.h"

#include <utility>

#include "TolmBase/StringUtil.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/UrlTemplate.h"

namespace TolmPlugin {

void UrlTable::Add(const std::string& url, Handler handler, int time_out_ms) {
  entries_[Tolm::Base::StringUtil::LowerCase(url)] = {url, std::move(handler), time_out_ms};
}

const Handler* UrlTable::Find(const std::string& url) const {
  std::string pattern;
  TolmLPCFrame::NormalizeUrlPattern(pattern, TolmLPCFrame::CutQuery(url));
  const auto found = entries_.find(Tolm::Base::StringUtil::LowerCase(pattern));
  return found == entries_.end() ? nullptr : &found->second.handler;
}

std::string RegistrationBody(const UrlTable& table, const std::string& extra_url,
                             const std::vector<std::string>& header_names) {
  proto::CRapidJsonProto body;
  int count = 0;
  const auto add = [&](const std::string& url, int time_out_ms) {
    const std::string entry = "/RegisterInfo/SupportUrlList[" + std::to_string(++count) + "]";
    body.set_v(entry + "/Url", url);
    body.set_v(entry + "/Timeout", time_out_ms);
  };
  for (const auto& [key, entry] : table.entries()) add(entry.url, entry.time_out_ms);
  add(extra_url, kDefaultTimeOutMs);
  count = 0;
  for (const std::string& name : header_names) {
    body.set_v("/RegisterInfo/SupportHttpHeaderList[" + std::to_string(++count) + "]", name);
  }
  return body.get_str(0);
}

std::string OwnUrl(const std::string& plugin_id) {
  // Hex with a letter in front is never a number; a segment of 32 bytes would be taken for a GUID.
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string segment = "p";
  for (const char c : plugin_id) {
    const auto byte = static_cast<unsigned char>(c);
    segment += kDigits[byte >> 4];
    segment += kDigits[byte & 15];
  }
  if (segment.size() == 32) segment += '-';
  return "/tolm-plugin/registered/" + segment;
}

}  // namespace TolmPlugin
