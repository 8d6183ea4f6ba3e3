#pragma once

#include <string>

namespace os {

/// Why `path` cannot be executed here, as far as the file shows it: "it does not exist", "it is not
/// executable", "it is made for another machine (aarch64)". Empty when the file shows nothing.
std::string ExecutableFault(const std::string& path);

/// The same when the system was asked to execute it and answered `error`, a code of its own: empty as well
/// where the system's text for the code says it already.
std::string ExecutableFault(const std::string& path, int error);

}  // namespace os
