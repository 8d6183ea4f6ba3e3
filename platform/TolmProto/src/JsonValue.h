#pragma once

// RapidJSON's types as this library uses them.

#include <rapidjson/document.h>

#include "TolmProto/RapidJsonMemory.h"

namespace proto {

using rapidjson::SizeType;
using Allocator = rapidjson::MemoryPoolAllocator<RapidJsonMemory>;
using Json = rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator, RapidJsonMemory>;
using Value = Json::ValueType;

}  // namespace proto
