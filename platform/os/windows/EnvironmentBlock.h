#pragma once

#include <map>
#include <string>

namespace os {

/// The environment of this process with `added` (UTF-8), as CreateProcess takes it: sorted, names compared
/// without case.
std::wstring EnvironmentBlock(const std::map<std::string, std::string>& added);

}  // namespace os
