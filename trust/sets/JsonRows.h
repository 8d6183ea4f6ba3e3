#pragma once

// The rows of the table of documents, before those that are made for each byte.

#include <span>
#include <string_view>

namespace trust {

/// As a JsonCase; without verdicts, the rule's is everybody's.
struct JsonRow {
  std::string_view text;
  char rule;
  std::string_view verdicts = {};
  std::string_view why = {};
};

std::span<const JsonRow> JsonStructures();
std::span<const JsonRow> JsonNumbers();
std::span<const JsonRow> JsonStrings();
/// Whole texts, and what stands before and behind a document.
std::span<const JsonRow> JsonWholes();

namespace json {

inline constexpr std::string_view kByRule{};
// Why cJSON, a library, takes more or less than the rule.
inline constexpr std::string_view kLooseNumbers =
    "cJSON reads numbers as strtod does: leading zeros, no digit at the point";
inline constexpr std::string_view kLooseEscapes = "cJSON takes \\u without four digits for a NUL";
inline constexpr std::string_view kControls = "cJSON keeps control characters in strings";
inline constexpr std::string_view kBlanks = "cJSON takes every byte up to 0x20 for a blank";
inline constexpr std::string_view kFollowing = "cJSON reads one value and leaves what follows";
inline constexpr std::string_view kEndsAtNul = "a headers or parts document ends at its first NUL";
// Choices.
inline constexpr std::string_view kRange =
    "section 9: limits of range; only cJSON takes what no double holds";
inline constexpr std::string_view kUnpaired = "section 8.2: surrogates without their other half";
inline constexpr std::string_view kBytes = "section 9: contents of strings; only ReadJson has them checked";
inline constexpr std::string_view kMark = "section 8.1: a byte order mark may be ignored";

}  // namespace json
}  // namespace trust
