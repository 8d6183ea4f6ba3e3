#include "common/HttpDocuments.h"

#include <cjson/cJSON.h>

#include <memory>
#include <utility>

#include "TolmBase/Encrypt.h"
#include "common/Constants.h"

namespace TolmLPCFrame {

namespace {

struct DeleteItem {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using ItemPtr = std::unique_ptr<cJSON, DeleteItem>;

struct FreeText {
  void operator()(char* text) const { cJSON_free(text); }
};

struct PartMember {
  const char* name;
  std::string MimePart::*field;
};
constexpr PartMember kPartTexts[] = {
    {"contentType", &MimePart::content_type},
    {"disposition", &MimePart::disposition},
    {"name", &MimePart::name},
    {"fileName", &MimePart::file_name},
    {"encoding", &MimePart::encoding},
    {"description", &MimePart::description},
};
constexpr char kPartBody[] = "bodyData";

bool AddText(cJSON* object, const char* name, const std::string& text) {
  return cJSON_AddStringToObject(object, name, text.c_str()) != nullptr;
}

/// The text member `name`; null without one.
const char* FindText(const cJSON* object, const char* name) {
  return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
}

std::string TextOrEmpty(const cJSON* object, const char* name) {
  const char* const text = FindText(object, name);
  return text != nullptr ? text : "";
}

/// {"<name>":[{..},..]} with an object for each entry, whose members `fill(object, entry)` adds. Every
/// call below may run out of memory; the whole text is given up then.
template <typename Entries, typename Fill>
std::string PrintDocument(const char* name, const Entries& entries, Fill fill) {
  const ItemPtr document(cJSON_CreateObject());
  cJSON* const array = cJSON_AddArrayToObject(document.get(), name);
  if (array == nullptr) return {};
  for (const auto& entry : entries) {
    ItemPtr object(cJSON_CreateObject());
    if (!cJSON_AddItemToArray(array, object.get())) return {};
    if (!fill(object.release(), entry)) return {};
  }
  const std::unique_ptr<char, FreeText> text(cJSON_Print(document.get()));
  return text != nullptr ? text.get() : "";
}

/// Calls `read(object)` for each object in the array `name` of the document.
template <typename Read>
bool ReadDocument(const char* name, const std::string& text, Read read) {
  if (text.empty()) return false;
  const ItemPtr document(cJSON_Parse(text.c_str()));
  const cJSON* const array = cJSON_GetObjectItemCaseSensitive(document.get(), name);
  if (!cJSON_IsArray(array)) return true;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    if (cJSON_IsObject(element)) read(element);
  }
  return true;
}

}  // namespace

std::string PrintHeadersDocument(const HttpHeaders& headers) {
  return PrintDocument(kKeyHttpHeaders, headers, [](cJSON* object, const HttpHeaders::value_type& header) {
    return AddText(object, kKeyKey, header.first) && AddText(object, kKeyValue, header.second);
  });
}

std::string PrintPartsDocument(const HttpParts& parts) {
  return PrintDocument(kKeyHttpMine, parts, [](cJSON* object, const MimePart& part) {
    for (const auto& [name, field] : kPartTexts) {
      if (!AddText(object, name, part.*field)) return false;
    }
    return AddText(object, kPartBody, Tolm::Base::Encrypt::Base64Encode(part.body_data));
  });
}

bool ReadHeadersDocument(HttpHeaders& headers, const std::string& text) {
  return ReadDocument(kKeyHttpHeaders, text, [&headers](const cJSON* object) {
    const char* const key = FindText(object, kKeyKey);
    if (key != nullptr) headers.try_emplace(key, TextOrEmpty(object, kKeyValue));
  });
}

bool ReadPartsDocument(HttpParts& parts, const std::string& text) {
  return ReadDocument(kKeyHttpMine, text, [&parts](const cJSON* object) {
    MimePart part;
    for (const auto& [name, field] : kPartTexts) part.*field = TextOrEmpty(object, name);
    const char* const body = FindText(object, kPartBody);
    if (body != nullptr) part.body_data = Tolm::Base::Encrypt::Base64Decode(body);
    parts.push_back(std::move(part));
  });
}

}  // namespace TolmLPCFrame
