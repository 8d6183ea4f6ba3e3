#include "LaterCalls.h"

#include <cstdio>

namespace trust::death {
namespace {

constexpr std::chrono::seconds kPatience{20};

}  // namespace

void LaterCalls::Send(std::size_t plugin, const std::function<std::uint64_t()>& send) {
  // Before the send: what ends from now on may be the connection that it went on.
  const std::uint64_t ends = events_.Ends(plugin);
  const std::uint64_t id = send();
  if (id == 0) {
    ++tally_.later_never_sent;
    return;
  }
  ++tally_.later_sent;
  const std::lock_guard lock(mutex_);
  if (early_.erase(id) == 0) pending_[id] = {plugin, ends, std::chrono::steady_clock::now()};
}

void LaterCalls::Answered(std::uint64_t id) {
  ++tally_.later_answered;
  const std::lock_guard lock(mutex_);
  if (pending_.erase(id) == 0) early_.insert(id);
}

void LaterCalls::Review() {
  const std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    const Pending& one = entry->second;
    const bool has_ended = events_.Ends(one.plugin) != one.ends;
    const bool is_overdue = now - one.sent > kPatience;
    if (has_ended && now - one.sent > kPatience / 4) {
      ++tally_.later_peer_gone;
    } else if (is_overdue) {
      ++tally_.later_lost;
      std::fprintf(stderr, "a request is lost: plugin %zu, id %llu\n", one.plugin,
                   static_cast<unsigned long long>(entry->first));
    } else {
      ++entry;
      continue;
    }
    entry = pending_.erase(entry);
  }
}

}  // namespace trust::death
