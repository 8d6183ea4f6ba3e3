// Any body of a plugin's registration: its urls lead to that plugin, with its time-outs, and its header names
// are listed once each.

#include <algorithm>
#include <map>
#include <vector>

#include "RegistryInside.h"
#include "TolmBase/StringUtil.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/UrlTemplate.h"
#include "support/Input.h"
#include "support/SilentLog.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

namespace {

using fuzz::Require;

std::string Element(const char* list, int index) {
  return std::string(list) + "[" + std::to_string(index) + "]";
}

void RequireServed(const TolmLPCFrame::CLPCIntegrate& registry, const std::string& url, int time_out) {
  // A url that is registered in a form that no look-up has is served to nobody.
  if (TolmLPCFrame::UrlLookupKey(url).text() != url) return;
  std::string id;
  Require(registry.FindDstIdByUrl(id, url) && id == "plugin", "a url leads to its plugin");
  std::int32_t found = 0;
  Require(registry.IsUrlFromPlugin(found, url) && found == time_out, "it has its time-out");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& registry = TolmLPCFrame::CLPCIntegrate::GetInstance();
  tolm::test::ForgetEverything(registry);
  tag_LPCCallBackData registration;
  registration.src_id = "plugin";
  registration.body.assign(reinterpret_cast<const char*>(data), size);
  registry.PluginURLRegister(registration);

  proto::CRapidJsonProto body;
  body.set_str(registration.body);
  std::map<std::string, std::int32_t> time_outs;
  for (int i = 1; i <= body.get_cnt("/RegisterInfo/SupportUrlList"); ++i) {
    const std::string entry = Element("/RegisterInfo/SupportUrlList", i);
    const std::string url = Tolm::Base::StringUtil::LowerCase(body.get_v(entry + "/Url", ""));
    if (!url.empty()) time_outs[url] = std::max(body.get_int_v(entry + "/Timeout", -1), 5000);
  }
  Require(tolm::test::TimeoutsByUrl(registry) == time_outs,
          "the last time-out of a url counts, and no others");
  for (const auto& [url, time_out] : time_outs) RequireServed(registry, url, time_out);

  std::vector<std::string> names;
  for (int i = 1; i <= body.get_cnt("/RegisterInfo/SupportHttpHeaderList"); ++i) {
    const std::string name = body.get_v(Element("/RegisterInfo/SupportHttpHeaderList", i), "");
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  std::vector<std::string> listed;
  registry.GetHttpHeaders(listed);
  Require(listed == names, "header names are listed once, in their order");
  return 0;
}
