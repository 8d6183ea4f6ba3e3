#pragma once

#include <string>
#include <vector>

#include "Handle.h"

namespace os {

/// The processes of this user that run the executable `path`, opened with `rights` beside those that looking
/// at them takes. Case and the kind of separators mean nothing.
std::vector<Handle> ProcessesRunning(const std::wstring& path, DWORD rights);

}  // namespace os
