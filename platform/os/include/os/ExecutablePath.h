#pragma once

#include <string>

namespace os {

/// The running executable in UTF-8, symbolic links resolved where the system has them; empty when the
/// system does not tell.
std::string ExecutablePath();

/// The directory of the running executable in UTF-8, ending with a separator; empty when the system
/// does not tell.
std::string ExecutableDirectory();

}  // namespace os
