#include <string>
#include <string_view>

#include "JsonCases.h"
#include "PositionedJson.h"
#include "Sets.h"
#include "TolmProto/RapidJsonProto.h"
#include "Verdicts.h"
#include "common/HttpDocuments.h"

namespace trust {
namespace {

/// Deeper than any case; what the guard allows a manifest is less.
constexpr std::size_t kDepth = 100;

constexpr char kHeader[] = R"("httpHeaders":[{"key":"k","value":"v"}])";
constexpr char kPart[] = R"("httpMine":[{"name":"n"}])";

bool IsWhole(const std::string& text) {
  return text.find('@') != std::string::npos || text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/// `text` with the document `{members}` wherever there is a '@'.
std::string Filled(std::string text, const std::string& members) {
  for (std::size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + members.size())) {
    text.replace(at, 1, "{" + members + "}");
  }
  return text;
}

/// `text` itself, or beside the members where it is a value only.
std::string Document(const std::string& text, const char* members) {
  return IsWhole(text) ? Filled(text, members) : "{" + std::string(members) + ",\"x\":[" + text + "]}";
}

bool RapidAccepts(const std::string& text) {
  proto::CRapidJsonProto json;
  return json.set_str(text);
}

bool DocumentsAccept(const std::string& text, Verdicts& verdicts) {
  TolmLPCFrame::HttpHeaders headers;
  TolmLPCFrame::ReadHeadersDocument(headers, Document(text, kHeader));
  TolmLPCFrame::HttpParts parts;
  TolmLPCFrame::ReadPartsDocument(parts, Document(text, kPart));
  verdicts.Expect(headers.size() == parts.size(), text, "headers and parts to be read alike", "one of them");
  return !headers.empty();
}

bool GuardAccepts(const std::string& text) {
  guard::JsonValue value;
  guard::Position where;
  std::string why;
  return guard::ReadJson(text, kDepth, value, where, why);
}

std::string RapidReads(const std::string& document) {
  proto::CRapidJsonProto json;
  json.set_str(document);
  return json.get_v("/k", "none");
}

std::string HeadersRead(std::string_view text) {
  TolmLPCFrame::HttpHeaders headers;
  TolmLPCFrame::ReadHeadersDocument(headers,
                                    R"({"httpHeaders":[{"key":"k","value":)" + std::string(text) + "}]}");
  return headers["k"];
}

std::string GuardReads(const std::string& document) {
  guard::JsonValue value;
  guard::Position where;
  std::string why;
  if (!guard::ReadJson(document, kDepth, value, where, why) || value.members.empty()) return "none";
  return value.members[0].value.text;
}

}  // namespace

void RunJson() {
  Verdicts verdicts("json");
  Verdicts readers("json_readers");
  for (const JsonCase& one : JsonCases()) {
    const std::string filled = IsWhole(one.text) ? Filled(one.text, kHeader) : one.text;
    std::string got;
    for (const bool accepted :
         {RapidAccepts(filled), DocumentsAccept(one.text, readers), GuardAccepts(filled)}) {
      got += accepted ? 'A' : 'R';
    }
    const std::string by_rule(3, one.rule);
    const std::string expected = one.verdicts.empty() ? by_rule : std::string(one.verdicts);
    // A verdict that is not the rule's needs a reason; so does a choice.
    verdicts.Expect(got == expected && (expected == by_rule || !one.why.empty()), one.text, expected, got);
    if (one.rule != '?' && expected != by_rule) verdicts.Deviates(one.why);
  }
  for (const auto& [text, content] : JsonTexts()) {
    const std::string document = R"({"k":)" + std::string(text) + "}";
    for (const std::string& got : {RapidReads(document), HeadersRead(text), GuardReads(document)}) {
      readers.Expect(got == content, text, content, got);
    }
  }
  verdicts.Print(300);
  readers.Print(300);
}

}  // namespace trust
