#pragma once

#include <string_view>

namespace trust {

/// What is compared with a figure's bound.
enum class Bound { kAtMost, kAtLeast, kExactly };

/// Prints a figure as a line of its own on stdout, a JSON object with `name`, `figure`, `unit`, `bound` and
/// `ok`. Texts must need no escape. From any thread. Gives whether the bound is kept.
bool PrintFigure(std::string_view name, double figure, std::string_view unit, Bound kind, double bound);
/// The same without a bound: it is published, and always ok.
void PrintFigure(std::string_view name, double figure, std::string_view unit);

/// Whether all figures of this process have kept their bounds: what `main` returns, turned around.
bool AllKept();

}  // namespace trust
