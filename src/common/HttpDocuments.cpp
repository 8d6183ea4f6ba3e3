#include "common/HttpDocuments.h"

#include <cjson/cJSON.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "TolmBase/Encrypt.h"
#include "TolmBase/LogLine.h"
#include "common/Constants.h"
#include "common/MessageJson.h"
#include "common/ShortenedText.h"

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

// Printed as it is, and nowhere else: in strings cJSON escapes it.
constexpr char kPlaceOfBody = '\x01';
// Each costs 64 bytes, and a part some 200 more.
constexpr std::size_t kMaxDocumentValues = 65536;
// A document of a few headers or parts without their bodies is printed without asking for more.
constexpr int kUsualBytes = 1024;

/// `name` and `text` must outlive the object.
bool AddText(cJSON* object, const char* name, const char* text) {
  return cJSON_AddItemToObjectCS(object, name, cJSON_CreateStringReference(text)) != 0;
}

/// The text member `name`; one without data when there is none.
std::string_view FindText(const ShortenedText& text, const cJSON* object, const char* name) {
  const char* const value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
  return value != nullptr ? text.Content(value) : std::string_view();
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
  const std::unique_ptr<char, FreeText> text(cJSON_PrintBuffered(document.get(), kUsualBytes, 1));
  return text != nullptr ? text.get() : "";
}

/// `document` with the Base64 of each part's body at its place. cJSON would go through that text byte by
/// byte, although it has nothing to escape.
std::string WithBodies(std::string_view document, const HttpParts& parts) {
  std::size_t size = document.size();
  for (const MimePart& part : parts) size += (part.body_data.size() + 2) / 3 * 4 + 1;
  std::string text;
  text.reserve(size);
  for (const MimePart& part : parts) {
    const std::size_t place = document.find(kPlaceOfBody);
    text += document.substr(0, place);
    document.remove_prefix(place + 1);
    text += '"';
    Tolm::Base::Encrypt::AppendBase64(text, part.body_data);
    text += '"';
  }
  return text += document;
}

/// Calls `read(text, object)` for each object in the array `name` of the document.
template <typename Read>
bool ReadDocument(const char* name, const std::string& whole, Read read) {
  if (whole.empty()) return false;
  const ShortenedText text(whole.c_str());
  if (HasMoreValuesThan(kMaxDocumentValues, text.text())) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTagError,
             "a document of %zu bytes is not read, for it has too many values", whole.size());
    return true;
  }
  const ItemPtr document(cJSON_Parse(text.text()));
  const cJSON* const array = cJSON_GetObjectItemCaseSensitive(document.get(), name);
  if (!cJSON_IsArray(array)) return true;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    if (cJSON_IsObject(element)) read(text, element);
  }
  return true;
}

}  // namespace

std::string PrintHeadersDocument(const HttpHeaders& headers) {
  return PrintDocument(kKeyHttpHeaders, headers, [](cJSON* object, const HttpHeaders::value_type& header) {
    return AddText(object, kKeyKey, header.first.c_str()) &&
           AddText(object, kKeyValue, header.second.c_str());
  });
}

std::string PrintPartsDocument(const HttpParts& parts) {
  const std::string document = PrintDocument(kKeyHttpMine, parts, [](cJSON* object, const MimePart& part) {
    for (const auto& [name, field] : kPartTexts) {
      if (!AddText(object, name, (part.*field).c_str())) return false;
    }
    constexpr char kPlace[] = {kPlaceOfBody, '\0'};
    return cJSON_AddItemToObjectCS(object, kPartBody, cJSON_CreateRaw(kPlace)) != 0;
  });
  return document.empty() ? document : WithBodies(document, parts);
}

bool ReadHeadersDocument(HttpHeaders& headers, const std::string& text) {
  return ReadDocument(kKeyHttpHeaders, text, [&headers](const ShortenedText& whole, const cJSON* object) {
    const std::string_view key = FindText(whole, object, kKeyKey);
    if (key.data() != nullptr) headers.try_emplace(std::string(key), FindText(whole, object, kKeyValue));
  });
}

bool ReadPartsDocument(HttpParts& parts, const std::string& text) {
  return ReadDocument(kKeyHttpMine, text, [&parts](const ShortenedText& whole, const cJSON* object) {
    MimePart part;
    for (const auto& [name, field] : kPartTexts) part.*field = FindText(whole, object, name);
    part.body_data = Tolm::Base::Encrypt::Base64Decode(FindText(whole, object, kPartBody));
    parts.push_back(std::move(part));
  });
}

}  // namespace TolmLPCFrame
