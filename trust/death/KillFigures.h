#pragma once

#include <cstddef>
#include <cstdint>

#include "Tally.h"

namespace trust::death {

/// What whoever kills has counted himself.
struct KillCounts {
  int kills = 0;  ///< of these:
  int plugins = 0;
  int guards = 0;
  int agents = 0;
  int hosts = 0;
  int in_stops = 0;  ///< while the host stopped
  int failed = 0;    ///< something did not come back, or did not end
  std::size_t orphans = 0;
  std::size_t files = 0;  ///< that stayed when nothing ran any more
  std::uint64_t requests_miscounted = 0;
  double slowest_return_s = 0;  ///< until all plugins served again
  double slowest_end_s = 0;     ///< until all older calls had ended
  double took_s = 0;
};

/// Prints death.* with the bounds of a run in which `wanted` processes were to be killed.
void PrintKillFigures(const KillCounts& counts, int wanted, const Tally& tally);

}  // namespace trust::death
