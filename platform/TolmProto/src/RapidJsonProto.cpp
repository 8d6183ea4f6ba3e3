#include "TolmProto/RapidJsonProto.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <system_error>
#include <vector>

#include "JsonValue.h"
#include "MemberIndex.h"
#include "TolmProto/JsonEscapes.h"
#include "TolmProto/RapidJsonMemory.h"

namespace proto {
namespace {

using Reader = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, RapidJsonMemory>;
using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, RapidJsonMemory>;
using Writer = rapidjson::Writer<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, RapidJsonMemory>;
using PrettyWriter = rapidjson::PrettyWriter<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, RapidJsonMemory>;

constexpr std::size_t kMaxTextSize = std::numeric_limits<std::int32_t>::max();
constexpr std::uint32_t kMaxIndexToSet = 1'000'000;
constexpr std::size_t kMaxIndentedDepth = 64;

// ---------------------------------------------------------------------------------------- Paths

struct Segment {
  std::string_view name;
  std::uint32_t index = 0;  // 0: no index
};

/// Takes the first segment off `path`. False when it is not well formed.
bool TakeSegment(std::string_view& path, Segment& segment) {
  if (path.empty() || path.front() != '/') return false;
  path.remove_prefix(1);
  segment = {path.substr(0, path.find('/')), 0};
  path.remove_prefix(segment.name.size());

  const std::size_t bracket = segment.name.find('[');
  if (bracket != std::string_view::npos) {
    if (segment.name.back() != ']') return false;
    const char* const first = segment.name.data() + bracket + 1;
    const char* const last = segment.name.data() + segment.name.size() - 1;
    const auto [end, error] = std::from_chars(first, last, segment.index);
    if (error != std::errc() || end != last || segment.index == 0) return false;
    segment.name = segment.name.substr(0, bracket);
  }
  return !segment.name.empty() && segment.name.find(']') == std::string_view::npos;
}

const Value* Find(const Value& root, const MemberIndex& index, std::string_view path) {
  const Value* value = &root;
  Segment segment;
  do {
    if (!TakeSegment(path, segment) || !value->IsObject()) return nullptr;
    value = index.Find(*value, segment.name);
    if (value == nullptr) return nullptr;
    if (segment.index > 0) {
      if (!value->IsArray() || segment.index > value->Size()) return nullptr;
      value = &(*value)[segment.index - 1];
    }
  } while (!path.empty());
  return value;
}

bool IsPathToSet(std::string_view path) {
  Segment segment;
  do {
    if (!TakeSegment(path, segment) || segment.index > kMaxIndexToSet) return false;
  } while (!path.empty());
  return true;
}

/// The value at a path that IsPathToSet, made with all that is missing on the way.
Value& Make(Value& root, std::string_view path, Allocator& allocator) {
  Value* value = &root;
  Segment segment;
  while (TakeSegment(path, segment)) {
    if (!value->IsObject()) value->SetObject();
    const auto length = static_cast<SizeType>(segment.name.size());
    auto member = value->FindMember(Value(rapidjson::StringRef(segment.name.data(), length)));
    const Value::ConstMemberIterator found = member;  // iterators of one kind only are compared without doubt
    if (const Value::ConstMemberIterator end = value->MemberEnd(); found == end) {
      value->AddMember(Value(segment.name.data(), length, allocator), Value(), allocator);
      member = value->MemberEnd() - 1;
    }
    value = &member->value;
    if (segment.index > 0) {
      if (!value->IsArray()) value->SetArray();
      while (value->Size() < segment.index) value->PushBack(Value(), allocator);
      value = &(*value)[segment.index - 1];
    }
  }
  return *value;
}

// -------------------------------------------------------------------------------------- Parsing

/// Whether a number that no double can hold is too close to 0, not too large.
bool IsTiny(std::string_view number) {
  if (number.front() == '-') number.remove_prefix(1);
  const std::size_t exponent_mark = number.find_first_of("eE");
  const std::string_view mantissa = number.substr(0, exponent_mark);
  // The power of ten of the first digit that counts.
  const auto point = static_cast<std::int64_t>(std::min(mantissa.find('.'), mantissa.size()));
  const auto digit = static_cast<std::int64_t>(mantissa.find_first_of("123456789"));
  std::int64_t power = point - digit;
  if (exponent_mark != std::string_view::npos) {
    std::string_view exponent = number.substr(exponent_mark + 1);
    if (exponent.front() == '+') exponent.remove_prefix(1);
    std::int64_t parsed = 0;
    const auto result = std::from_chars(exponent.data(), exponent.data() + exponent.size(), parsed);
    if (result.ec != std::errc()) return exponent.front() == '-';
    power += parsed;
  }
  return power < 0;
}

/// Builds a document from a reader's events. Numbers arrive as texts and are converted here: the reader's
/// own arithmetic with exponents overflows on numbers that are made for it.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  explicit Builder(Json& document) : document_(document) {}

  bool Null() { return document_.Null(); }
  bool Bool(bool value) { return document_.Bool(value); }
  bool String(const char* text, SizeType length, bool copy) { return document_.String(text, length, copy); }
  bool Key(const char* text, SizeType length, bool copy) { return document_.Key(text, length, copy); }
  bool StartObject() { return document_.StartObject(); }
  bool EndObject(SizeType count) {
    has_large_object_ |= count >= MemberIndex::kLarge;
    return document_.EndObject(count);
  }
  bool StartArray() { return document_.StartArray(); }
  bool EndArray(SizeType count) { return document_.EndArray(count); }

  bool RawNumber(const char* text, SizeType length, bool /*copy*/) {
    const char* const end = text + length;
    std::int64_t integer = 0;
    if (const auto [behind, error] = std::from_chars(text, end, integer);
        behind == end && error == std::errc()) {
      return document_.Int64(integer);
    }
    std::uint64_t large = 0;
    if (const auto [behind, error] = std::from_chars(text, end, large);
        behind == end && error == std::errc()) {
      return document_.Uint64(large);
    }
    double real = 0;
    if (std::from_chars(text, end, real).ec == std::errc()) return document_.Double(real);
    return IsTiny({text, length}) && document_.Double(0);
  }

  bool has_large_object() const { return has_large_object_; }

 private:
  Json& document_;
  bool has_large_object_ = false;
};

/// Reads the whole of `text` in place: the document's texts stay where they are, so that a long one is held
/// once and not three times over. Iterative, so that no nesting exhausts the stack. `text` must outlive
/// `document`.
bool ParseInto(Json& document, MemberIndex& index, std::string& text) {
  if (text.size() > kMaxTextSize) return false;
  // The reader finds first halves only.
  if (FindUnpairedSurrogate(text) != std::string::npos) return false;
  const std::size_t mark = text.starts_with("\xEF\xBB\xBF") ? 3 : 0;
  rapidjson::InsituStringStream stream(text.data() + mark);
  const char* const end = text.data() + text.size();
  bool has_large_object = false;
  const auto read = [&](Json& target) {
    constexpr unsigned kFlags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    Builder builder(target);
    Reader reader;
    // The stream shows its end as a NUL; a NUL in the text must not pass for it.
    const bool complete = !reader.Parse<kFlags>(stream, builder).IsError() && stream.src_ == end;
    has_large_object = builder.has_large_object();
    return complete;
  };
  bool complete = false;
  const auto generate = [&](Json& target) { return complete = read(target); };
  document.Populate(generate);
  if (complete && has_large_object) index.Build(document);
  return complete;
}

// -------------------------------------------------------------------------------------- Writing

/// Tells `handler` all of `root`, and returns how deep it is nested. Unlike Value::Accept with a stack of
/// its own, since documents may be nested deeper than a thread's stack allows.
template <typename Handler>
std::size_t Walk(const Value& root, Handler& handler) {
  struct Level {
    const Value* container;
    SizeType next;
  };
  std::vector<Level> levels;
  std::size_t depth = 0;
  const Value* value = &root;
  while (true) {
    if (value->IsObject() || value->IsArray()) {
      value->IsObject() ? handler.StartObject() : handler.StartArray();
      levels.push_back({value, 0});
      depth = std::max(depth, levels.size());
    } else {
      value->Accept(handler);
    }
    value = nullptr;
    while (value == nullptr) {
      if (levels.empty()) return depth;
      auto& [container, next] = levels.back();
      if (container->IsObject() && next < container->MemberCount()) {
        const auto& member = *(container->MemberBegin() + static_cast<std::ptrdiff_t>(next++));
        handler.Key(member.name.GetString(), member.name.GetStringLength(), false);
        value = &member.value;
      } else if (container->IsArray() && next < container->Size()) {
        value = &(*container)[next++];
      } else {
        container->IsObject() ? handler.EndObject(next) : handler.EndArray(next);
        levels.pop_back();
      }
    }
  }
}

}  // namespace

struct CRapidJsonProto::Document {
  std::string text;  // what was read; texts of `json` lie in it
  Json json{rapidjson::kObjectType};
  MemberIndex index;  // of what was read, until something is set

  const Value* Find(std::string_view path) const { return proto::Find(json, index, path); }
  Value& Make(std::string_view path) {
    index.Clear();
    return proto::Make(json, path, json.GetAllocator());
  }
};

CRapidJsonProto::CRapidJsonProto() : document_(std::make_unique<Document>()) {}

CRapidJsonProto::~CRapidJsonProto() = default;

bool CRapidJsonProto::set_str(const std::string& text) {
  // A new document each time: the old one's memory pool only ever grows.
  auto parsed = std::make_unique<Document>();
  parsed->text = text;
  const bool complete = ParseInto(parsed->json, parsed->index, parsed->text);
  document_ = complete ? std::move(parsed) : std::make_unique<Document>();
  return complete;
}

std::string CRapidJsonProto::get_v(const std::string& path, const std::string& default_value) const {
  const Value* const value = document_->Find(path);
  if (value == nullptr || !value->IsString()) return default_value;
  return {value->GetString(), value->GetStringLength()};
}

int CRapidJsonProto::get_int_v(const std::string& path, int default_value) const {
  const Value* const value = document_->Find(path);
  return value != nullptr && value->IsInt() ? value->GetInt() : default_value;
}

int CRapidJsonProto::get_cnt(const std::string& path) const {
  const Value* const value = document_->Find(path);
  return value != nullptr && value->IsArray() ? static_cast<int>(value->Size()) : 0;
}

bool CRapidJsonProto::set_v(const std::string& path, int value) {
  if (!IsPathToSet(path)) return false;
  document_->Make(path).SetInt(value);
  return true;
}

bool CRapidJsonProto::set_v(const std::string& path, const std::string& value) {
  if (!IsPathToSet(path) || value.size() > kMaxTextSize) return false;
  document_->Make(path).SetString(value, document_->json.GetAllocator());
  return true;
}

bool CRapidJsonProto::set_v(const std::string& path, const char* value) {
  return set_v(path, std::string(value != nullptr ? value : ""));
}

std::string CRapidJsonProto::get_str(int style) const {
  const Json& json = document_->json;
  Buffer buffer;
  rapidjson::BaseReaderHandler<> nobody;
  if (style != 0 && Walk(json, nobody) <= kMaxIndentedDepth) {
    PrettyWriter writer(buffer);
    Walk(json, writer);
  } else {
    Writer writer(buffer);
    Walk(json, writer);
  }
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace proto
