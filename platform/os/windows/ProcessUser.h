#pragma once

#include "Handle.h"

#include <vector>

namespace os {

/// The user that `process` runs as, as the bytes of a SID; empty when the system does not tell.
std::vector<char> UserOf(const Handle& process);

/// The same of the process that asks.
std::vector<char> OwnUser();

}  // namespace os
