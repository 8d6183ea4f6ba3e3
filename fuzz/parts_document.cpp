// Any text as a multipart document: its parts are those that a plain parse finds, and can be printed and read
// again.

#include <cjson/cJSON.h>

#include <tuple>

#include "TolmBase/Encrypt.h"
#include "common/HttpDocuments.h"
#include "support/Input.h"

namespace {

using TolmLPCFrame::HttpParts;
using TolmLPCFrame::MimePart;

auto All(const MimePart& part) {
  return std::tie(part.content_type, part.disposition, part.name, part.file_name, part.encoding,
                  part.description, part.body_data);
}

bool AreSame(const HttpParts& left, const HttpParts& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const MimePart& one, const MimePart& other) { return All(one) == All(other); });
}

std::string Text(const cJSON* object, const char* name) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
  return text != nullptr ? text : "";
}

/// Without the short cut past long strings.
HttpParts ReadPlainly(const std::string& text) {
  HttpParts parts;
  cJSON* const document = cJSON_Parse(text.c_str());
  const cJSON* const array = cJSON_GetObjectItemCaseSensitive(document, "httpMine");
  const cJSON* element = nullptr;
  if (cJSON_IsArray(array)) {
    cJSON_ArrayForEach(element, array) {
      if (!cJSON_IsObject(element)) continue;
      MimePart part;
      part.content_type = Text(element, "contentType");
      part.disposition = Text(element, "disposition");
      part.name = Text(element, "name");
      part.file_name = Text(element, "fileName");
      part.encoding = Text(element, "encoding");
      part.description = Text(element, "description");
      part.body_data = Tolm::Base::Encrypt::Base64Decode(Text(element, "bodyData"));
      parts.push_back(part);
    }
  }
  cJSON_Delete(document);
  return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::WithLongRuns({reinterpret_cast<const char*>(data), size});
  HttpParts parts;
  fuzz::Require(ReadPartsDocument(parts, text) == !text.empty(), "only the empty text is refused");
  fuzz::Require(AreSame(parts, ReadPlainly(text)), "the parts are those of a plain parse");
  HttpParts again;
  ReadPartsDocument(again, PrintPartsDocument(parts));
  fuzz::Require(AreSame(again, parts), "what was read can be printed and read again");
  return 0;
}
