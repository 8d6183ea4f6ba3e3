#include "SocketOwners.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <system_error>

#include "Descriptor.h"
#include "os/PortTable.h"

namespace os {
namespace {

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

/// A socket that no process was seen with is looked for again after this time: other users' stay unseen,
/// and the few that were under way between two processes have arrived.
constexpr std::chrono::seconds kNotSeenFor{1};

/// What was seen so lately is there: both tables are read one behind the other.
constexpr std::chrono::milliseconds kStillThere{50};

Folder OpenFolder(int below, const char* path) {
  const int folder = ::openat(below, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const opened = folder >= 0 ? ::fdopendir(folder) : nullptr;
  if (folder >= 0 && opened == nullptr) ::close(folder);
  return {opened, ::closedir};
}

std::optional<std::uint32_t> ParseNumber(std::string_view name) {
  std::uint32_t number = 0;
  const char* const end = name.data() + name.size();
  const auto [behind, error] = std::from_chars(name.data(), end, number);
  if (error != std::errc() || behind != end) return std::nullopt;
  return number;
}

/// Which socket the descriptor at `path` below `folder` is; 0 when it is something else.
std::uint64_t SocketAt(int folder, const char* path) {
  constexpr std::string_view kHead = "socket:[";
  char link[64];
  const ssize_t length = ::readlinkat(folder, path, link, sizeof link);
  if (length <= 0 || !std::string_view(link, static_cast<std::size_t>(length)).starts_with(kHead)) return 0;
  std::uint64_t inode = 0;
  std::from_chars(link + kHead.size(), link + length, inode);
  return inode;
}

}  // namespace

SocketOwners& SocketOwners::Instance() {
  static SocketOwners& owners = *new SocketOwners;
  return owners;
}

std::vector<std::uint32_t> SocketOwners::Find(const std::vector<std::uint64_t>& inodes) {
  std::vector<std::uint32_t> owners(inodes.size(), kUnknownOwner);
  if (inodes.empty()) return owners;
  const Descriptor processes(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!processes) return owners;

  const MutexLock lock(mutex_);
  std::vector<std::size_t> missing;
  for (std::size_t i = 0; i < inodes.size(); ++i) {
    if (const auto owner = Recall(processes.get(), inodes[i])) {
      owners[i] = *owner;
    } else {
      missing.push_back(i);
    }
  }
  if (missing.empty()) return owners;

  LookEverywhere(processes.get());
  const auto now = Clock::now();
  for (const std::size_t i : missing) {
    if (const auto place = places_.find(inodes[i]); place != places_.end()) {
      owners[i] = place->second.process;
    } else {
      not_seen_[inodes[i]] = now;
    }
  }
  return owners;
}

/// What is known of the owner without looking everywhere.
std::optional<std::uint32_t> SocketOwners::Recall(int processes, std::uint64_t inode) const {
  if (const auto place = places_.find(inode); place != places_.end()) {
    if (Clock::now() - looked_everywhere_ < kStillThere) return place->second.process;
    char path[32];
    std::snprintf(path, sizeof path, "%u/fd/%u", place->second.process, place->second.descriptor);
    if (SocketAt(processes, path) == inode) return place->second.process;
    return std::nullopt;
  }
  const auto looked = not_seen_.find(inode);
  if (looked != not_seen_.end() && Clock::now() - looked->second < kNotSeenFor) return kUnknownOwner;
  return std::nullopt;
}

void SocketOwners::LookEverywhere(int processes) {
  places_.clear();
  const auto now = Clock::now();
  std::erase_if(not_seen_, [now](const auto& looked) { return now - looked.second >= kNotSeenFor; });
  const Folder list = OpenFolder(processes, ".");
  if (list == nullptr) return;
  while (const dirent* const entry = ::readdir(list.get())) {
    const auto process = ParseNumber(entry->d_name);
    if (!process) continue;
    char path[32];
    std::snprintf(path, sizeof path, "%u/fd", *process);
    const Folder descriptors = OpenFolder(processes, path);
    if (descriptors == nullptr) continue;
    while (const dirent* const descriptor = ::readdir(descriptors.get())) {
      const auto number = ParseNumber(descriptor->d_name);
      if (!number) continue;
      const std::uint64_t inode = SocketAt(::dirfd(descriptors.get()), descriptor->d_name);
      if (inode != 0) places_.try_emplace(inode, Place{*process, *number});
    }
  }
  looked_everywhere_ = Clock::now();
}

}  // namespace os
