// Any document under any path: every getter gives a value or the default, what is set is there, and what was
// made here can be printed and read again.

#include <algorithm>

#include "TolmProto/XmlProto.h"
#include "support/Input.h"

namespace {

using fuzz::Require;
using proto::CXmlProto;

/// A text that XML gives back byte by byte: no blank at all, and nothing that it must not hold.
bool IsPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

void RequireEnds(const std::string& printed) {
  Require(!printed.empty() && printed.back() == '\n', "what is printed ends with a line feed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first line is the path, the rest the document.
  fuzz::Input input(data, size);
  const std::string path = input.Line();
  const std::string text = input.Rest();

  CXmlProto document;
  const bool is_document = document.set_str(text);
  const int count = document.get_cnt(path);
  Require(count >= 0 && (is_document || count == 0), "what is no document has no elements");
  Require((document.get_v(path, "\1") != "\1" || count == 0) || document.get_v(path, "\2") == "\1",
          "an element has a text");
  Require(count > 0 || document.get_int_v(path, -7) == -7, "no element has no integer");
  for (const int style : {0, 1}) RequireEnds(document.get_str(style));

  const bool is_path = document.set_v(path, 7);
  if (is_path) {
    Require(document.get_int_v(path, -1) == 7 && document.get_v(path, "") == "7", "what was set is there");
    for (const int style : {0, 1}) RequireEnds(document.get_str(style));
  }
  CXmlProto made;
  if (!made.set_v(path, text)) return 0;
  Require(made.get_v(path, "") == text, "the text that was set is there");
  CXmlProto again;
  if (!IsPlain(text)) return 0;
  for (const int style : {0, 1}) {
    Require(again.set_str(made.get_str(style)), "what was made is a document");
    Require(again.get_cnt(path) == 1 && again.get_v(path, "") == text, "it comes back");
  }
  return 0;
}
