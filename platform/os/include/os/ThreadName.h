#pragma once

namespace os {

/// Names the calling thread for debuggers and process lists; what is longer than the system allows
/// (15 bytes on Linux) is cut off.
void SetThreadName(const char* name);

}  // namespace os
