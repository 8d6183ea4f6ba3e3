#include "Verdicts.h"

#include <cstdio>

#include "support/Figures.h"

namespace trust {
namespace {

constexpr std::size_t kMaxPrinted = 50;
constexpr std::size_t kMaxShown = 120;

}  // namespace

void Verdicts::Expect(bool right, std::string_view what, std::string_view expected, std::string_view got) {
  ++cases_;
  if (right || ++wrong_ > kMaxPrinted) return;
  std::printf("wrong: %s: %s: expected %s, got %s\n", set_.c_str(), Shown(what).c_str(),
              Shown(expected).c_str(), Shown(got).c_str());
}

void Verdicts::Print(std::size_t least) const {
  const std::string name = "sets." + set_;
  PrintFigure(name + ".cases", static_cast<double>(cases_), "cases", Bound::kAtLeast,
              static_cast<double>(least));
  std::size_t deviating = 0;
  for (const auto& [why, count] : deviations_) {
    std::printf("deviates: %s: %s (%zu)\n", set_.c_str(), why.c_str(), count);
    deviating += count;
  }
  PrintFigure(name + ".deviations", static_cast<double>(deviating), "cases");
  PrintFigure(name + ".wrong", static_cast<double>(wrong_), "cases", Bound::kExactly, 0);
}

std::string Shown(std::string_view bytes) {
  std::string text;
  for (const char c : bytes.substr(0, kMaxShown)) {
    char hex[8];
    std::snprintf(hex, sizeof hex, c >= ' ' && c <= '~' ? "%c" : "\\x%02x",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    text += hex;
  }
  return bytes.size() > kMaxShown ? text + "..." : text;
}

}  // namespace trust
