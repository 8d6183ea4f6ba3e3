#pragma once

#include <algorithm>
#include <cstddef>

namespace bench {

struct Settings {
  bool quick = false;
  /// Rounds, or samples in one: fewer when it has to be quick, but never fewer rounds than five.
  int Rounds(int usual) const { return quick ? std::max(std::min(usual, 5), usual / 3) : usual; }
  std::size_t Samples(std::size_t usual) const { return quick ? (usual + 3) / 4 : usual; }
};

}  // namespace bench
