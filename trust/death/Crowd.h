#pragma once

namespace trust::death {

struct CrowdOptions {
  int plugins = 64;
  int rounds = 20;
};

/// Starts a host with many plugins again and again, and prints the figures.
void RunCrowd(const CrowdOptions& options);

}  // namespace trust::death
