#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace guard {

/// A place in a text, counted from 1; columns in bytes. Line 0: no place.
struct Position {
  std::size_t line = 0;
  std::size_t column = 0;

  bool operator==(const Position&) const = default;
};

/// A JSON value that knows where it stands.
struct JsonValue {
  enum class Kind { kNull, kBoolean, kNumber, kText, kArray, kObject };
  struct Member;

  Kind kind = Kind::kNull;
  Position position;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> elements;
  std::vector<Member> members;  ///< in their order, those with the same key all
};

struct JsonValue::Member {
  std::string key;
  Position position;  ///< of the key
  JsonValue value;
};

/// Reads one JSON document of UTF-8 (a byte order mark is skipped), nested at most `max_depth` deep. False
/// when it is none; `where` and `why` then say where it goes wrong.
bool ReadJson(std::string_view text, std::size_t max_depth, JsonValue& value, Position& where,
              std::string& why);

}  // namespace guard
