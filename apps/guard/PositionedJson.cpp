#include "PositionedJson.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "TolmProto/JsonEscapes.h"
#include "TolmProto/RapidJsonMemory.h"

namespace guard {
namespace {

/// Line and column of growing offsets.
class PositionFinder {
 public:
  explicit PositionFinder(std::string_view text) : text_(text) {}

  Position At(std::size_t offset) {
    offset = std::min(offset, text_.size());
    for (; at_ < offset; ++at_) {
      if (text_[at_] == '\n') {
        ++line_;
        line_begin_ = at_ + 1;
      }
    }
    return {line_, offset - line_begin_ + 1};
  }

 private:
  const std::string_view text_;
  std::size_t at_ = 0;
  std::size_t line_ = 1;
  std::size_t line_begin_ = 0;
};

/// Builds the tree from the parser's events. The parser tells only where a token ended; what lies between
/// that and the next token is blanks, commas and colons. Numbers arrive as texts and are converted here: the
/// parser's own arithmetic is not defined for all of them.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  Builder(std::string_view text, std::size_t max_depth, const rapidjson::MemoryStream& stream,
          JsonValue& root)
      : text_(text), max_depth_(max_depth), stream_(stream), positions_(text), root_(root) {}

  bool too_deep() const { return too_deep_; }
  Position last() const { return last_; }

  bool Null() { return Add(JsonValue::Kind::kNull) != nullptr; }
  bool Bool(bool value) {
    Add(JsonValue::Kind::kBoolean)->boolean = value;
    return true;
  }
  bool RawNumber(const char* bytes, rapidjson::SizeType size, bool) {
    // What no double can hold is outside of every member's bounds.
    double number = std::numeric_limits<double>::infinity();
    std::from_chars(bytes, bytes + size, number);
    Add(JsonValue::Kind::kNumber)->number = number;
    return true;
  }
  bool String(const char* bytes, rapidjson::SizeType size, bool) {
    Add(JsonValue::Kind::kText)->text.assign(bytes, size);
    return true;
  }
  bool Key(const char* bytes, rapidjson::SizeType size, bool) {
    open_.back()->members.push_back({std::string(bytes, size), NextToken(), {}});
    return true;
  }
  bool StartObject() { return Open(JsonValue::Kind::kObject); }
  bool StartArray() { return Open(JsonValue::Kind::kArray); }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool EndArray(rapidjson::SizeType) { return Close(); }

 private:
  Position NextToken() {
    const std::size_t begin = text_.find_first_not_of(" \t\r\n,:", end_of_last_);
    end_of_last_ = stream_.Tell();
    return last_ = positions_.At(begin);
  }

  // The containers that are open stay where they are: each grows only while it is the innermost one.
  JsonValue* Add(JsonValue::Kind kind) {
    JsonValue* value = &root_;
    if (!open_.empty()) {
      JsonValue& parent = *open_.back();
      value = parent.kind == JsonValue::Kind::kObject ? &parent.members.back().value
                                                      : &parent.elements.emplace_back();
    }
    value->kind = kind;
    value->position = NextToken();
    return value;
  }

  bool Open(JsonValue::Kind kind) {
    open_.push_back(Add(kind));
    too_deep_ = open_.size() > max_depth_;
    return !too_deep_;
  }

  bool Close() {
    open_.pop_back();
    end_of_last_ = stream_.Tell();
    return true;
  }

  const std::string_view text_;
  const std::size_t max_depth_;
  const rapidjson::MemoryStream& stream_;
  PositionFinder positions_;
  JsonValue& root_;
  std::vector<JsonValue*> open_;
  std::size_t end_of_last_ = 0;
  Position last_;
  bool too_deep_ = false;
};

}  // namespace

bool ReadJson(std::string_view text, std::size_t max_depth, JsonValue& value, Position& where,
              std::string& why) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  value = {};
  rapidjson::MemoryStream stream(text.data(), text.size());
  Builder builder(text, max_depth, stream, value);
  rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, proto::RapidJsonMemory> reader;
  const rapidjson::ParseResult result =
      reader.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag>(stream,
                                                                                                  builder);
  // The stream shows its end as a NUL; a NUL in the text must not pass for it.
  const bool has_end = stream.Tell() == text.size();
  const std::size_t half = proto::FindUnpairedSurrogate(text);
  if (!result.IsError() && has_end && half == std::string_view::npos) return true;
  if (builder.too_deep()) {
    where = builder.last();
    why = "nested more than " + std::to_string(max_depth) + " deep";
  } else {
    const auto code = result.IsError() ? result.Code()
                      : has_end        ? rapidjson::kParseErrorStringUnicodeSurrogateInvalid
                                       : rapidjson::kParseErrorDocumentRootNotSingular;
    where = PositionFinder(text).At(result.IsError() ? result.Offset() : has_end ? half : stream.Tell());
    why = rapidjson::GetParseError_En(code);
  }
  return false;
}

}  // namespace guard
