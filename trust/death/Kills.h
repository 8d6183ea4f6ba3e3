#pragma once

namespace trust::death {

struct KillOptions {
  int kills = 1000;
  unsigned seed = 20261122;
};

/// Kills plugins, guards, agents and hosts at random while everybody calls everybody, and prints the figures.
void RunKills(const KillOptions& options);

}  // namespace trust::death
