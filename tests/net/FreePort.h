#pragma once

#include <cstdint>

namespace tolm::test {

/// A port of the loopback interface that was free a moment ago.
std::uint16_t FreePort();

}  // namespace tolm::test
