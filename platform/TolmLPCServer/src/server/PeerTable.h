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
  bool Remove(const std::string& id, const wire::Link* link);
  /// The open connection of this id, or null.
  std::shared_ptr<wire::Link> Find(const std::string& id) const;
  std::vector<std::shared_ptr<wire::Link>> All() const;
  /// All of them, once, without a need for memory: for a stop. The second call gives none.
  std::vector<std::shared_ptr<wire::Link>> AllForStop() noexcept;
  /// Empties the table, and gives what was in it.
  std::unordered_map<std::string, std::shared_ptr<wire::Link>> Clear() noexcept;
  /// How many of them are open.
  std::size_t CountOpen() const;

 private:
  // Held for a look-up only, so sharing it would gain nothing. (With MinGW a std::shared_mutex never gives
  // back the two semaphores that it took.)
  mutable os::Mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<wire::Link>> links_ TOLM_GUARDED_BY(mutex_);
  // Empty, with room for all.
  std::vector<std::shared_ptr<wire::Link>> room_for_stop_ TOLM_GUARDED_BY(mutex_);
  bool had_stop_ TOLM_GUARDED_BY(mutex_) = false;
};

}  // namespace lpc
