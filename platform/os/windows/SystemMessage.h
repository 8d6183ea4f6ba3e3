#pragma once

#include <string>

#include "Handle.h"

namespace os {

/// "doing something: what the system says about GetLastError()".
std::string SystemMessage(const std::string& doing, DWORD error);

}  // namespace os
