#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace trust {

/// A document, and what the three readers make of it: 'A' it is accepted, 'R' it is not.
struct JsonCase {
  /// A value; or, where it holds '@', or nothing but blanks, a whole text, in which '@' is a document.
  std::string text;
  /// 'A': RFC 8259 has it accepted. 'R': it is not JSON. '?': it leaves the choice, which is recorded here.
  char rule;
  /// Of CRapidJsonProto, of cJSON behind the headers and parts documents, and of the guard's ReadJson.
  std::string_view verdicts;
  /// For every verdict that is not the rule's, and for every choice.
  std::string_view why;
};

std::vector<JsonCase> JsonCases();

/// A text in quotes, and what is in it.
struct JsonText {
  std::string_view text;
  std::string_view content;
};

/// Everything that a string may hold, once.
std::vector<JsonText> JsonTexts();

}  // namespace trust
