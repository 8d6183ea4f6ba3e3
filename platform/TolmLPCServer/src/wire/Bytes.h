#pragma once

// Little-endian numbers and counted texts, written and read in one place.

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace lpc::wire {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian; add byte swaps here");

template <typename T>
void StoreNumber(char* to, T value) {
  static_assert(std::is_unsigned_v<T>);
  std::memcpy(to, &value, sizeof value);
}

template <typename T>
T LoadNumber(const char* from) {
  static_assert(std::is_unsigned_v<T>);
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

/// Writes into a buffer that the caller has made large enough.
class ByteWriter {
 public:
  explicit ByteWriter(char* at) : at_(at) {}

  template <typename T>
  void Number(T value) {
    StoreNumber(at_, value);
    at_ += sizeof value;
  }
  void Raw(std::string_view text) {
    if (!text.empty()) std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
  }
  /// A length of type Count, then the bytes.
  template <typename Count>
  void Text(std::string_view text) {
    Number(static_cast<Count>(text.size()));
    Raw(text);
  }

 private:
  char* at_;
};

/// Reads what somebody else wrote: after the first thing that is not there, everything is empty and
/// ok() is false.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

  template <typename T>
  T Number() {
    if (!Have(sizeof(T))) return 0;
    const T value = LoadNumber<T>(rest_.data());
    rest_.remove_prefix(sizeof(T));
    return value;
  }
  template <typename Count>
  std::string_view Text() {
    const auto size = Number<Count>();
    if (!Have(size)) return {};
    const std::string_view text = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return text;
  }
  bool ok() const { return ok_; }
  bool at_end() const { return rest_.empty(); }

 private:
  bool Have(std::size_t size) {
    if (rest_.size() < size) {
      ok_ = false;
      rest_ = {};
    }
    return ok_;
  }

  std::string_view rest_;
  bool ok_ = true;
};

}  // namespace lpc::wire
