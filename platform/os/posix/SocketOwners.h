#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

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

  std::optional<std::uint32_t> Recall(int processes, std::uint64_t inode) const;
  void LookEverywhere(int processes);

  std::mutex mutex_;
  std::unordered_map<std::uint64_t, Place> places_;                // guarded by mutex_, as is what follows
  std::unordered_map<std::uint64_t, Clock::time_point> not_seen_;  // when they were looked for in vain
  Clock::time_point looked_everywhere_{};
};

}  // namespace os
