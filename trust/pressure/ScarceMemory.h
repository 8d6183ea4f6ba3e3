#pragma once

#include <cstddef>
#include <cstdint>

namespace trust {

/// What counts as large: half of it where each byte is looked at by a sanitizer.
inline constexpr std::size_t kLargeBlock = (TRUST_SANITIZED ? 2u : 4u) << 20;

/// Makes `new` refuse large blocks in this process while it lives: the one with this number, counted from 1,
/// or with `all_later` that one and all behind it.
class ScarceMemory {
 public:
  ScarceMemory(std::uint64_t number, bool all_later);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// How many were refused so far.
  static std::uint64_t Refused();
};

}  // namespace trust
