#include "soak/Tally.h"

#include <cstdio>

#include "support/Figures.h"

namespace trust {
namespace {

constexpr std::uint64_t kShown = 20;

}  // namespace

void Tally::Count(const std::string& kind, bool good, const std::string& why) {
  const std::lock_guard lock(mutex_);
  if (good) {
    ++good_[kind];
    return;
  }
  if (++unexplained_ > kShown) return;
  std::fprintf(stderr, "unexplained: %s: %s\n", kind.c_str(), why.c_str());
}

void Tally::Print() const {
  const std::lock_guard lock(mutex_);
  for (const auto& [kind, count] : good_) {
    PrintFigure("soak.count." + kind, static_cast<double>(count), "times", Bound::kAtLeast, 1);
  }
  PrintFigure("soak.unexplained", static_cast<double>(unexplained_), "times", Bound::kExactly, 0);
}

}  // namespace trust
