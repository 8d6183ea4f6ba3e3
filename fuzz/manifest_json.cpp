// Any manifest's text: it is a document that another parser reads alike, or the place where it stops being
// one lies in it.

#include <algorithm>

#include "PositionedJson.h"
#include "TolmProto/RapidJsonProto.h"
#include "support/Input.h"

namespace {

using fuzz::Require;
using guard::JsonValue;
using guard::Position;

constexpr std::size_t kMaxDepth = 8;

bool IsBehind(const Position& one, const Position& other) {
  return one.line > other.line || (one.line == other.line && one.column >= other.column);
}

/// How deep it is; each value stands behind the one that it is in.
std::size_t Look(const JsonValue& value, std::size_t lines) {
  Require(value.position.line >= 1 && value.position.line <= lines && value.position.column >= 1,
          "a value has a place");
  std::size_t depth = 0;
  for (const JsonValue& element : value.elements) {
    Require(IsBehind(element.position, value.position), "an element stands in its array");
    depth = std::max(depth, Look(element, lines));
  }
  for (const JsonValue::Member& member : value.members) {
    Require(IsBehind(member.position, value.position) && IsBehind(member.value.position, member.position),
            "a member stands in its object, and its value behind its key");
    depth = std::max(depth, Look(member.value, lines));
  }
  const bool is_container = value.kind == JsonValue::Kind::kObject || value.kind == JsonValue::Kind::kArray;
  return depth + (is_container ? 1 : 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  JsonValue value;
  Position where;
  std::string why;
  if (!guard::ReadJson(text, kMaxDepth, value, where, why)) {
    Require(!why.empty() && where.line >= 1 && where.line <= lines && where.column <= size + 1,
            "what stops it is told, with its place");
    return 0;
  }
  Require(Look(value, lines) <= kMaxDepth, "it is not nested deeper than is said");
  // Its texts are those that the frame's parser finds. That one refuses numbers that no double holds.
  proto::CRapidJsonProto other;
  if (!other.set_str(text) || value.kind != JsonValue::Kind::kObject) return 0;
  for (const JsonValue::Member& member : value.members) {
    const std::string& key = member.key;
    if (key.empty() || key.find_first_of("/[]") != std::string::npos) continue;
    const auto first = std::find_if(value.members.begin(), value.members.end(),
                                    [&](const JsonValue::Member& one) { return one.key == key; });
    const bool is_text = first->value.kind == JsonValue::Kind::kText;
    Require(other.get_v("/" + key, "-") == (is_text ? first->value.text : "-"),
            "another parser finds the same text");
  }
  return 0;
}
