#pragma once

// Memory that is refused on purpose, one allocation at a time.

#include <cstdint>

namespace tolm::test {

/// While it lives, this program is refused the allocation with a certain number, counted from 1, or all from
/// that one on. With `new` or with malloc; what other libraries take from malloc is theirs.
class ScarceMemory {
 public:
  enum class Of { kAllThreads, kThisThread, kOtherThreads };
  enum class Refuse { kOne, kAllBehind };

  explicit ScarceMemory(std::uint64_t number, Of of = Of::kAllThreads, Refuse refuse = Refuse::kOne);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// How many were refused so far.
  static std::uint64_t Refused();
};

/// What this thread allocates while it lives is neither counted nor refused.
class Spared {
 public:
  Spared();
  ~Spared();
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;
};

/// Does `act` while that allocation is refused; how many were.
template <typename Act>
std::uint64_t Without(std::uint64_t number, ScarceMemory::Of of, Act&& act) {
  const ScarceMemory scarce(number, of);
  act();
  return ScarceMemory::Refused();
}

/// Calls `trial`, which is to have the allocation with the number that it is given refused, with 1, 2 and so
/// on, until nothing was refused: it gives how many were. How many trials had something refused.
template <typename Trial>
int RefuseEach(Trial&& trial) {
  std::uint64_t number = 1;
  while (trial(number) > 0) ++number;
  return static_cast<int>(number - 1);
}

}  // namespace tolm::test
