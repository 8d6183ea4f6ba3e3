#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace TolmLPCFrame {

/// A text with its hash, which is then computed once for all the tables that the text is looked up in.
struct HashedText {
  explicit HashedText(std::string_view key) : text(key), hash(std::hash<std::string_view>()(key)) {}

  std::string_view text;
  std::size_t hash;
};

/// An ordered map by text, with an index for looking up. In a map of a million urls each step down the
/// tree misses the cache, twenty times over. A place of the index is one cache line that holds the key, and
/// a small value too, so that a look-up misses it twice. Entries stay where they are for as long as they
/// live, so the index refers to the map's own values, and to its own keys where they are long.
template <typename T>
class IndexedMap {
 public:
  IndexedMap() = default;
  IndexedMap(IndexedMap&&) noexcept = default;
  IndexedMap& operator=(IndexedMap&&) noexcept = default;

  /// Null when there is no such key. Valid until the next change.
  const T* Find(const HashedText& key) const {
    const auto found = index_.find(key);
    return found == index_.end() ? nullptr : found->value();
  }
  const T* Find(std::string_view key) const { return Find(HashedText(key)); }

  /// All entries, in order.
  const std::map<std::string, T>& ordered() const { return map_; }

  void InsertOrAssign(const std::string& key, T value) {
    const auto entry = map_.insert_or_assign(key, std::move(value)).first;
    const auto [place, is_new] = index_.insert(Place(*entry));
    if (!is_new) place->Keep(entry->second);
  }

  void Clear() {
    index_.clear();
    map_.clear();
  }

 private:
  using Map = std::map<std::string, T>;

  static constexpr std::size_t kCacheLine = 64;

  class alignas(kCacheLine) Place {
   public:
    explicit Place(const typename Map::value_type& entry) : size_(entry.first.size()) {
      Keep(entry.second);
      if (size_ <= kNearBytes) {
        std::memcpy(near_, entry.first.data(), size_);
      } else {
        far_ = entry.first.data();
      }
    }

    /// What `key` stands for now.
    void Keep(const T& value) const {
      if constexpr (kKeepsValue) {
        value_ = value;
      } else {
        value_ = &value;
      }
    }

    std::string_view key() const { return {size_ <= kNearBytes ? near_ : far_, size_}; }
    const T* value() const {
      if constexpr (kKeepsValue) {
        return &value_;
      } else {
        return value_;
      }
    }

   private:
    static constexpr bool kKeepsValue = std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(void*);
    static constexpr std::size_t kNearBytes = 48;

    std::size_t size_;
    mutable std::conditional_t<kKeepsValue, T, const T*> value_;  // no part of what a place is found by
    union {
      char near_[kNearBytes];
      const char* far_;
    };
  };
  static_assert(sizeof(Place) == kCacheLine);

  struct Hash {
    using is_transparent = void;
    std::size_t operator()(const HashedText& key) const { return key.hash; }
    std::size_t operator()(const Place& place) const { return HashedText(place.key()).hash; }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const Place& a, const Place& b) const { return a.key() == b.key(); }
    bool operator()(const HashedText& a, const Place& b) const { return a.text == b.key(); }
    bool operator()(const Place& a, const HashedText& b) const { return a.key() == b.text; }
  };

  Map map_;
  boost::unordered_flat_set<Place, Hash, Equal> index_;
};

}  // namespace TolmLPCFrame
