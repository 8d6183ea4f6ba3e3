#pragma once

#include <string>

#include "Handle.h"

namespace os {

/// Why the system may have answered `error` when it was asked to execute `path`, as far as the file shows
/// it: "it is a directory", "it is made for another machine (aarch64)". Empty when the file shows nothing.
std::string ExecutableFault(const std::string& path, DWORD error);

}  // namespace os
