#include "server/PeerTable.h"

#include <algorithm>
#include <utility>

namespace lpc {

bool PeerTable::Add(const std::string& id, std::shared_ptr<wire::Link> link,
                    std::shared_ptr<wire::Link>& holder) {
  const os::MutexLock lock(mutex_);
  if (!had_stop_ && room_for_stop_.capacity() <= links_.size()) room_for_stop_.reserve(2 * links_.size() + 8);
  const auto [entry, added] = links_.emplace(id, std::move(link));
  if (!added) holder = entry->second;
  return added;
}

bool PeerTable::Remove(const std::string& id, const wire::Link* link) {
  std::shared_ptr<wire::Link> removed;  // released unlocked
  const os::MutexLock lock(mutex_);
  const auto entry = links_.find(id);
  if (entry == links_.end() || entry->second.get() != link) return false;
  removed = std::move(entry->second);
  links_.erase(entry);
  return true;
}

std::shared_ptr<wire::Link> PeerTable::Find(const std::string& id) const {
  const os::MutexLock lock(mutex_);
  const auto entry = links_.find(id);
  return entry != links_.end() && entry->second->IsOpen() ? entry->second : nullptr;
}

std::vector<std::shared_ptr<wire::Link>> PeerTable::All() const {
  std::vector<std::shared_ptr<wire::Link>> all;
  const os::MutexLock lock(mutex_);
  all.reserve(links_.size());
  for (const auto& [id, link] : links_) all.push_back(link);
  return all;
}

std::vector<std::shared_ptr<wire::Link>> PeerTable::AllForStop() noexcept {
  const os::MutexLock lock(mutex_);
  if (std::exchange(had_stop_, true)) return {};
  for (const auto& [id, link] : links_) room_for_stop_.push_back(link);
  return std::move(room_for_stop_);
}

std::unordered_map<std::string, std::shared_ptr<wire::Link>> PeerTable::Clear() noexcept {
  std::unordered_map<std::string, std::shared_ptr<wire::Link>> all;
  const os::MutexLock lock(mutex_);
  all.swap(links_);
  return all;
}

std::size_t PeerTable::CountOpen() const {
  const os::MutexLock lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(links_.begin(), links_.end(), [](const auto& entry) { return entry.second->IsOpen(); }));
}

}  // namespace lpc
