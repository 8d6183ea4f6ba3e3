#include "LaterCalls.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>

namespace trust::death {
namespace {

/// An answer that came before its connection's end may be on its way to the callback for so long.
constexpr std::chrono::milliseconds kHandedOver{500};

bool IsOlder(std::int64_t since, std::int64_t now, std::chrono::nanoseconds age) {
  return now - since > age.count();
}

}  // namespace

LaterCalls::LaterCalls(Tally& tally, const HostEvents& events) : tally_(tally), events_(events) {
  tally_.later_oldest_ns = 0;  // of an earlier host
}

void LaterCalls::Send(std::size_t plugin, const std::function<std::uint64_t()>& send) {
  const std::int64_t sent = NowNs();
  // Before the send: what ends from now on may be the connection that it went on.
  const std::uint64_t ends = events_.Ends(plugin);
  {
    const std::lock_guard lock(mutex_);
    sending_.insert(sent);
    PublishOldest();
  }
  const std::uint64_t id = send();
  const std::lock_guard lock(mutex_);
  sending_.erase(sending_.find(sent));
  if (id == 0) {
    ++tally_.later_never_sent;
  } else {
    ++tally_.later_sent;
    if (early_.erase(id) != 0) {
      ++tally_.later_answered;
    } else {
      pending_[id] = {plugin, ends, sent, 0};
    }
  }
  PublishOldest();
}

void LaterCalls::Answered(std::uint64_t id) {
  const std::lock_guard lock(mutex_);
  if (pending_.erase(id) != 0) {
    ++tally_.later_answered;
    PublishOldest();
  } else if (decided_.erase(id) == 0 && !early_.emplace(id, NowNs()).second) {
    CountUnasked(id);
  }
}

void LaterCalls::Review() {
  const std::lock_guard lock(mutex_);
  const std::int64_t now = NowNs();
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    if (Decide(*entry, now)) {
      decided_.insert(entry->first);
      entry = pending_.erase(entry);
    } else {
      ++entry;
    }
  }
  DropUnasked();
  PublishOldest();
}

void LaterCalls::HostStopped() {
  const std::lock_guard lock(mutex_);
  DropUnasked();
  tally_.later_host_stopped += pending_.size();
  pending_.clear();
  PublishOldest();
}

bool LaterCalls::Decide(PendingById::value_type& entry, std::int64_t now) {
  auto& [id, one] = entry;
  if (one.ended_ns == 0 && events_.Ends(one.plugin) != one.ends) one.ended_ns = now;
  if (one.ended_ns != 0 && IsOlder(one.ended_ns, now, kHandedOver)) {
    ++tally_.later_peer_gone;
    return true;
  }
  if (!IsOlder(one.sent_ns, now, kLost)) return false;
  ++tally_.later_lost;
  std::fprintf(stderr, "a request is lost: plugin %zu, id %llu\n", one.plugin,
               static_cast<unsigned long long>(id));
  return true;
}

void LaterCalls::DropUnasked() {
  for (auto answer = early_.begin(); answer != early_.end();) {
    // Whoever sends now and began after it was answered has sent something else.
    const bool may_be_asked = !sending_.empty() && *sending_.begin() <= answer->second;
    if (may_be_asked) {
      ++answer;
      continue;
    }
    CountUnasked(answer->first);
    answer = early_.erase(answer);
  }
}

void LaterCalls::CountUnasked(std::uint64_t id) {
  ++tally_.later_unasked;
  std::fprintf(stderr, "an answer is nobody's: id %llu\n", static_cast<unsigned long long>(id));
}

void LaterCalls::PublishOldest() {
  std::int64_t oldest = sending_.empty() ? 0 : *sending_.begin();
  for (const auto& [id, one] : pending_) {
    if (oldest == 0 || one.sent_ns < oldest) oldest = one.sent_ns;
  }
  tally_.later_oldest_ns = oldest;
}

}  // namespace trust::death
