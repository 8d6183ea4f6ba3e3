#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "os/Mutex.h"

namespace os {

/// Which process holds a socket. To look through the descriptors of all processes takes tens of
/// milliseconds on a busy system, so that it is remembered where sockets were: what is asked for is looked
/// for there first, and everywhere only when something is not there any more or was not seen before.
class SocketOwners {
 public:
  /// Shared by all tables. Never destroyed.
  static SocketOwners& Instance();

  /// The process that holds each of the sockets `inodes`, in their order; kUnknownOwner for those that are
  /// held by none that may be seen.
  std::vector<std::uint32_t> Find(const std::vector<std::uint64_t>& inodes);

 private:
  using Clock = std::chrono::steady_clock;

  struct Place {
    std::uint32_t process;
    std::uint32_t descriptor;
  };

  std::optional<std::uint32_t> Recall(int processes, std::uint64_t inode) const TOLM_REQUIRES(mutex_);
  void LookEverywhere(int processes) TOLM_REQUIRES(mutex_);

  Mutex mutex_;
  std::unordered_map<std::uint64_t, Place> places_ TOLM_GUARDED_BY(mutex_);
  /// When they were looked for in vain.
  std::unordered_map<std::uint64_t, Clock::time_point> not_seen_ TOLM_GUARDED_BY(mutex_);
  Clock::time_point looked_everywhere_ TOLM_GUARDED_BY(mutex_){};
};

}  // namespace os
