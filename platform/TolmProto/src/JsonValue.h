#pragma once

// RapidJSON's types as this library uses them.

#include <rapidjson/document.h>

#include <string_view>

#include "TolmProto/RapidJsonMemory.h"

namespace proto {

using rapidjson::SizeType;
using Allocator = rapidjson::MemoryPoolAllocator<RapidJsonMemory>;
using Json = rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator, RapidJsonMemory>;
using Value = Json::ValueType;

inline std::string_view NameOf(const Value::Member& member) {
  return {member.name.GetString(), member.name.GetStringLength()};
}

}  // namespace proto
