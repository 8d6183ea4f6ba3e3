// Any params of a message on its way to a plugin's handler: the record can be sent and arrives again, its url
// is cut before its query, and its handler is the one that the frame's rules name.

#include <chrono>
#include <utility>

#include "MessageRecords.h"
#include "TolmBase/Encrypt.h"
#include "TolmBase/StringUtil.h"
#include "UrlTable.h"
#include "common/UrlTemplate.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

const TolmPlugin::UrlTable& Table() {
  static const TolmPlugin::UrlTable table = [] {
    TolmPlugin::UrlTable urls;
    for (const char* const url : {"/Clock/now", "/clock/<ID>", "/clock/<GUID>/a", "/", ""}) {
      urls.Add(
          url, [](TolmPlugin::Request&&) { return TolmPlugin::Message{}; }, 1);
    }
    return urls;
  }();
  return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr const char* kKeys[] = {"url", "method", "schema", "httpHeaders", "httpMime"};
  fuzz::Input input(data, size);
  tag_LPCCallBackData record;
  record.need_reply = input.Byte() % 2 == 0;
  record.body = input.Line();
  lpcclient::InboundInfo info;
  info.time_out_ms = static_cast<int>(input.Byte());
  while (!input.empty()) {
    const unsigned which = input.Byte();
    const std::string value = input.Line();
    const bool wrapped = which % std::size(kKeys) >= 3 && which < 128;
    record.params[kKeys[which % std::size(kKeys)]] =
        wrapped ? Tolm::Base::Encrypt::Base64Encode(fuzz::WithLongRuns(value)) : value;
  }
  const std::string url = record.params.contains("url") ? record.params["url"] : "";
  const std::string body = record.body;
  const TolmPlugin::Message message = TolmPlugin::ToMessage(record.params, std::string(body));
  const LpcParams sent = TolmPlugin::ToParams(message);
  Require(TolmPlugin::ToParams(TolmPlugin::ToMessage(sent, "")) == sent, "what is sent arrives");

  const TolmPlugin::Request request = TolmPlugin::ToRequest(std::move(record), info);
  const std::string cut = TolmLPCFrame::CutQuery(url);
  Require(request.message.url == cut && request.query == url.substr(std::min(cut.size() + 1, url.size())),
          "the url is cut before its query");
  Require(request.message.body == body && request.deadline.has_value() == (info.time_out_ms > 0),
          "body and deadline arrive");

  const std::string key(TolmLPCFrame::UrlLookupKey(url).text());
  const auto& entries = Table().entries();
  const auto entry = entries.find(key);
  Require(Table().Find(url) == (entry == entries.end() ? nullptr : &entry->second.handler),
          "the handler is that of the frame's rules");
  return 0;
}
