#pragma once

#include <cstdint>
#include <string>

namespace trust {

/// What NoMemory does, in a process whose program lies beside `configuration`, an LpcFrame.xml that it writes
/// with this port. Whether all bounds were kept.
bool RunNoMemory(const std::string& configuration, std::uint16_t port, bool quick);

}  // namespace trust
