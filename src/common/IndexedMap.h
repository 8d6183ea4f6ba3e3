#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace TolmLPCFrame {

/// An ordered map by text, with an index for looking up. In a map of a million urls each step down the
/// tree misses the cache, twenty times over; the index misses it about four times. Entries stay where
/// they are for as long as they live, so the index refers to the map's own keys.
template <typename T>
class IndexedMap {
 public:
  IndexedMap() = default;
  IndexedMap(IndexedMap&&) = default;
  IndexedMap& operator=(IndexedMap&&) = default;

  /// Null when there is no such key. Valid until the entry is erased.
  const T* Find(std::string_view key) const {
    const auto found = index_.find(key);
    return found == index_.end() ? nullptr : &found->second->second;
  }

  /// All entries, in order.
  const std::map<std::string, T>& ordered() const { return map_; }

  void InsertOrAssign(const std::string& key, T value) {
    if (const auto found = index_.find(key); found != index_.end()) {
      found->second->second = std::move(value);
      return;
    }
    const auto entry = map_.emplace(key, std::move(value)).first;
    index_.emplace(entry->first, entry);
  }

  void Erase(std::string_view key) {
    const auto found = index_.find(key);
    if (found == index_.end()) return;
    const auto entry = found->second;
    index_.erase(found);
    map_.erase(entry);
  }

  void Clear() {
    index_.clear();
    map_.clear();
  }

 private:
  using Map = std::map<std::string, T>;

  Map map_;
  boost::unordered_flat_map<std::string_view, typename Map::iterator, std::hash<std::string_view>> index_;
};

}  // namespace TolmLPCFrame
