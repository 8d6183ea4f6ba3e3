#pragma once

#include <string_view>
#include <unordered_map>
#include <vector>

#include "JsonValue.h"

namespace proto {

/// Finds the members of large objects by name. RapidJSON goes through all of them each time, and who reads a
/// list by its elements' paths asks for as many as somebody else has cared to send.
class MemberIndex {
 public:
  /// Objects with fewer members are gone through.
  static constexpr SizeType kLarge = 64;

  /// Takes up the large objects in `root`, whose values must stay where they are until Clear.
  void Build(const Value& root);
  void Clear() noexcept { orders_.clear(); }
  /// The first member of this name, or null. `object` may be one that was not taken up. In line, for nearly
  /// all documents are small, and what they pay for large ones is one look at whether there are any.
  const Value* Find(const Value& object, std::string_view name) const {
    if (!orders_.empty()) {
      if (const auto found = orders_.find(&object); found != orders_.end()) {
        return FindInOrder(object, found->second, name);
      }
    }
    for (const Value::Member& member : object.GetObject()) {
      if (NameOf(member) == name) return &member.value;
    }
    return nullptr;
  }

 private:
  using Order = std::vector<SizeType>;  // of the members by name, those of one name as they stand

  static const Value* FindInOrder(const Value& object, const Order& order, std::string_view name);

  std::unordered_map<const Value*, Order> orders_;
};

}  // namespace proto
