#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "os/Mutex.h"
#include "wire/Link.h"

namespace lpc {

/// Who is connected, by id. All operations may be called from any thread.
class PeerTable {
 public:
  /// False when the id is taken; `holder` is then who has it.
  bool Add(const std::string& id, std::shared_ptr<wire::Link> link, std::shared_ptr<wire::Link>& holder);
  /// Removes the id if `link` holds it; says whether it did.
  bool Remove(const std::string& id, const wire::Link& link);
  /// The open connection of this id, or null.
  std::shared_ptr<wire::Link> Find(const std::string& id) const;
  std::vector<std::shared_ptr<wire::Link>> All() const;
  std::vector<std::shared_ptr<wire::Link>> Clear();
  /// How many of them are open.
  std::size_t CountOpen() const;

 private:
  // Held for a look-up only, so sharing it would gain nothing. (With MinGW a std::shared_mutex never gives
  // back the two semaphores that it took.)
  mutable os::Mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<wire::Link>> links_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace lpc
