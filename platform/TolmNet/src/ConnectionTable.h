#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "Outbox.h"
#include "os/Mutex.h"

namespace Tolm::Net {

/// The process's connections by socket id, which counts up from 1 and never comes round.
class ConnectionTable {
 public:
  static ConnectionTable& Instance();

  /// An id for somebody who is not kept here; 0 when there are no more.
  std::int32_t NextId();
  /// A new connection's outbox with an id of its own; null when there are no more ids.
  std::shared_ptr<Outbox> Add(std::shared_ptr<Waker> waker, std::string client_ip, std::size_t max_bytes);
  void Remove(std::int32_t socket_id);

  /// Null when there is none, or not any more.
  std::shared_ptr<Outbox> Find(std::int32_t socket_id) const;
  /// Whether there ever was one.
  bool WasGiven(std::int32_t socket_id) const;
  std::size_t size() const;

 private:
  std::int32_t NextIdLocked() TOLM_REQUIRES(mutex_);

  mutable os::Mutex mutex_;
  std::int32_t last_id_ TOLM_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::int32_t, std::shared_ptr<Outbox>> outboxes_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace Tolm::Net
