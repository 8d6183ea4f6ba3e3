#include "soak/Tally.h"

#include <cstdio>

#include "soak/Kinds.h"
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

void Tally::Print(double seconds) const {
  const std::lock_guard lock(mutex_);
  auto unlisted = good_;
  for (const Kind& kind : Kinds()) {
    const std::string name(kind.name);
    const auto counted = good_.find(name);
    const auto count = static_cast<double>(counted == good_.end() ? 0 : counted->second);
    PrintFigure("soak.count." + name, count, "times", Bound::kAtLeast, kind.Least(seconds));
    unlisted.erase(name);
  }
  // Nobody says how often these have to come.
  for (const auto& [kind, count] : unlisted) {
    PrintFigure("soak.count." + kind, static_cast<double>(count), "times", Bound::kExactly, 0);
  }
  PrintFigure("soak.unexplained", static_cast<double>(unexplained_), "times", Bound::kExactly, 0);
}

}  // namespace trust
