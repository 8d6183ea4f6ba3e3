#include "ConnectionTable.h"

#include <limits>
#include <utility>

namespace Tolm::Net {

// Never destroyed: a process may exit while servers run.
ConnectionTable& ConnectionTable::Instance() {
  static ConnectionTable& instance = *new ConnectionTable;
  return instance;
}

std::int32_t ConnectionTable::NextIdLocked() {
  return last_id_ == std::numeric_limits<std::int32_t>::max() ? 0 : ++last_id_;
}

std::int32_t ConnectionTable::NextId() {
  const os::MutexLock lock(mutex_);
  return NextIdLocked();
}

std::shared_ptr<Outbox> ConnectionTable::Add(std::shared_ptr<Waker> waker, std::string client_ip,
                                             std::size_t max_bytes) {
  const os::MutexLock lock(mutex_);
  const std::int32_t id = NextIdLocked();
  if (id == 0) return nullptr;
  auto outbox = std::make_shared<Outbox>(std::move(waker), id, std::move(client_ip), max_bytes);
  outboxes_.emplace(id, outbox);
  return outbox;
}

void ConnectionTable::Remove(std::int32_t socket_id) {
  std::shared_ptr<Outbox> removed;
  const os::MutexLock lock(mutex_);
  const auto found = outboxes_.find(socket_id);
  if (found == outboxes_.end()) return;
  removed = std::move(found->second);
  outboxes_.erase(found);
}

std::shared_ptr<Outbox> ConnectionTable::Find(std::int32_t socket_id) const {
  const os::MutexLock lock(mutex_);
  const auto found = outboxes_.find(socket_id);
  return found == outboxes_.end() ? nullptr : found->second;
}

bool ConnectionTable::WasGiven(std::int32_t socket_id) const {
  const os::MutexLock lock(mutex_);
  return socket_id > 0 && socket_id <= last_id_;
}

std::size_t ConnectionTable::size() const {
  const os::MutexLock lock(mutex_);
  return outboxes_.size();
}

}  // namespace Tolm::Net
