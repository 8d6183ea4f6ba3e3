#include "pressure/ScarceMemory.h"

#include <atomic>
#include <limits>

#include "support/OwnNew.h"

namespace trust {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

std::atomic<std::uint64_t> g_first_refused{kNever};
std::atomic<bool> g_all_later{false};
std::atomic<std::uint64_t> g_asked{0};
std::atomic<std::uint64_t> g_refused{0};

bool IsRefused(std::size_t size) {
  if (size < kLargeBlock) return false;
  const std::uint64_t first = g_first_refused.load();
  if (first == kNever) return false;
  const std::uint64_t number = ++g_asked;
  if (number != first && !(g_all_later && number > first)) return false;
  ++g_refused;
  return true;
}

}  // namespace

ScarceMemory::ScarceMemory(std::uint64_t number, bool all_later) {
  g_asked = 0;
  g_refused = 0;
  g_all_later = all_later;
  g_first_refused = number;
}

ScarceMemory::~ScarceMemory() {
  g_first_refused = kNever;
}

std::uint64_t ScarceMemory::Refused() {
  return g_refused;
}

}  // namespace trust

bool tolm::test::MayAllocate(std::size_t size) noexcept {
  return !trust::IsRefused(size);
}
