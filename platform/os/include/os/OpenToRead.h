#pragma once

#include <cstdio>
#include <string>

namespace os {

/// Opens the file for reading its bytes as they are; null when that is not possible. `path` is in the code
/// page that the C library takes. For the caller to close.
std::FILE* OpenToRead(const std::string& path);

}  // namespace os
