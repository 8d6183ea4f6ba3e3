// Any document under any path: every getter gives a value or the default, what is set is there, and what is
// printed is read as the same document.

#include <algorithm>

#include "TolmProto/JsonEscapes.h"
#include "TolmProto/RapidJsonProto.h"
#include "support/Input.h"

namespace {

using fuzz::Require;
using proto::CRapidJsonProto;

void RequireSame(const CRapidJsonProto& one, const CRapidJsonProto& other, const std::string& path) {
  Require(one.get_v(path, "none") == other.get_v(path, "none"), "the text comes back");
  Require(one.get_int_v(path, -7) == other.get_int_v(path, -7), "the integer comes back");
  Require(one.get_cnt(path) == other.get_cnt(path), "the array comes back");
}

void RequirePrints(const CRapidJsonProto& document, const std::string& path) {
  const std::string printed = document.get_str(0);
  for (const int style : {0, 1}) {
    CRapidJsonProto again;
    Require(again.set_str(document.get_str(style)), "what is printed is a document");
    RequireSame(document, again, path);
    Require(again.get_str(0) == printed, "it is printed as before");
  }
}

/// The same document with so many members in front that they are looked up in another way.
std::string WithManyMembers(const std::string& object) {
  std::string text = "{";
  for (int i = 0; i < 70; ++i) text += "\"~" + std::to_string(i) + "\":0,";
  return text + object.substr(object.find('{') + 1);
}

/// Whether an index in it asks for more than a few thousand elements, which take their time and memory.
bool IsCostly(const std::string& path) {
  return std::count_if(path.begin(), path.end(), [](char c) { return c >= '0' && c <= '9'; }) > 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first line is the path, the rest the document.
  fuzz::Input input(data, size);
  const std::string path = input.Line();
  const std::string text = input.Rest();

  CRapidJsonProto document;
  const bool is_document = document.set_str(text);
  Require(is_document || document.get_str(0) == "{}", "what is no document leaves an empty object");
  Require(!is_document || proto::FindUnpairedSurrogate(text) == std::string::npos,
          "no half of a pair is read");
  Require(document.get_cnt(path) >= 0, "a count is one");
  RequirePrints(document, path);

  if (const std::string printed = document.get_str(0);
      printed.starts_with("{\"") && !path.starts_with("/~")) {
    CRapidJsonProto larger;
    Require(larger.set_str(WithManyMembers(printed)), "more members make it no less a document");
    RequireSame(document, larger, path);
  }
  if (IsCostly(path)) return 0;
  const std::string before = document.get_str(0);
  const bool is_path = document.set_v(path, 7);
  Require(is_path || document.get_str(0) == before, "what is no path changes nothing");
  Require(document.set_v(path, text) == is_path, "a path is one for every value");
  if (!is_path) return 0;
  Require(document.get_v(path, "") == text && document.get_int_v(path, -1) == -1,
          "the text that was set is there");
  RequirePrints(document, path);
  document.set_v(path, 7);
  Require(document.get_int_v(path, -1) == 7 && document.get_v(path, "none") == "none", "so is the integer");
  // A path that a document of its own takes, too, down to each element.
  CRapidJsonProto fresh;
  Require(fresh.set_v(path, static_cast<const char*>(nullptr)) && fresh.get_v(path, "none").empty(),
          "no text is the empty one");
  return 0;
}
