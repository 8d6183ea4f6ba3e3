#pragma once

namespace trust::death {

/// Kills one process at one certain moment, `rounds` times for each moment, and prints the figures.
void RunMoments(int rounds);

}  // namespace trust::death
