#include "support/Figures.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace trust {
namespace {

std::atomic<bool> all_kept{true};

// Whole numbers without a fraction, so that counts look like counts.
std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.15g", value);
  return text;
}

void Print(std::string_view name, double figure, std::string_view unit, std::string_view bound, bool ok) {
  std::string line = R"({"name": ")";
  line.append(name).append(R"(", "figure": )").append(Number(figure));
  line.append(R"(, "unit": ")").append(unit);
  line.append(R"(", "bound": ")").append(bound);
  line.append(R"(", "ok": )").append(ok ? "true}\n" : "false}\n");
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace

bool PrintFigure(std::string_view name, double figure, std::string_view unit, Bound kind, double bound) {
  const bool ok = kind == Bound::kAtMost    ? figure <= bound
                  : kind == Bound::kAtLeast ? figure >= bound
                                            : figure == bound;
  const char* const sign = kind == Bound::kAtMost ? "<= " : kind == Bound::kAtLeast ? ">= " : "";
  if (!ok) all_kept = false;
  Print(name, figure, unit, sign + Number(bound), ok);
  return ok;
}

void PrintFigure(std::string_view name, double figure, std::string_view unit) {
  Print(name, figure, unit, "none", true);
}

bool AllKept() {
  return all_kept;
}

}  // namespace trust
