#pragma once

#include <string>

namespace os {

/// The directory of the running executable in UTF-8, ending with a separator; empty when the system
/// does not tell.
std::string ExecutableDirectory();

}  // namespace os
