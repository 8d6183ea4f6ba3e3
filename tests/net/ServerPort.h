#pragma once

#include <cstdint>

#include "support/System.h"

namespace tolm::test {

/// For a server that starts at once: somebody else may take the port in between.
inline std::uint16_t ServerPort() {
  return static_cast<std::uint16_t>(FreePort());
}

}  // namespace tolm::test
