// Any text as a headers document: its headers are those that a plain parse finds, and can be printed and read
// again.

#include <cjson/cJSON.h>

#include "common/HttpDocuments.h"
#include "support/Input.h"

namespace {

using TolmLPCFrame::HttpHeaders;

/// Without the short cut past long strings.
HttpHeaders ReadPlainly(const std::string& text) {
  HttpHeaders headers;
  cJSON* const document = cJSON_Parse(text.c_str());
  const cJSON* const array = cJSON_GetObjectItemCaseSensitive(document, "httpHeaders");
  const cJSON* element = nullptr;
  if (cJSON_IsArray(array)) {
    cJSON_ArrayForEach(element, array) {
      if (!cJSON_IsObject(element)) continue;
      const char* const key = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(element, "key"));
      const char* const value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(element, "value"));
      if (key != nullptr) headers.try_emplace(key, value != nullptr ? value : "");
    }
  }
  cJSON_Delete(document);
  return headers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::WithLongRuns({reinterpret_cast<const char*>(data), size});
  HttpHeaders headers;
  fuzz::Require(TolmLPCFrame::ReadHeadersDocument(headers, text) == !text.empty(),
                "only the empty text is refused");
  fuzz::Require(headers == ReadPlainly(text), "the headers are those of a plain parse");
  HttpHeaders again;
  TolmLPCFrame::ReadHeadersDocument(again, TolmLPCFrame::PrintHeadersDocument(headers));
  fuzz::Require(again == headers, "what was read can be printed and read again");
  return 0;
}
