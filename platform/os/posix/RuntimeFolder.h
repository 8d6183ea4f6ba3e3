#pragma once

#include <string>

namespace os {

/// Where this user's processes keep what they share while they run: sockets, locks, events.
std::string RuntimeFolder();

/// Makes the folder, for this user alone, when it is not there; its path either way. `fault` says why it
/// may not be used, or is empty.
std::string EnsureRuntimeFolder(std::string& fault);

/// A file name for any text: others than letters, digits, '.', '_' and '-' are escaped, and what is too
/// long for a file system becomes a hash and its end. At most 200 bytes.
std::string RuntimeFileName(const std::string& name);

}  // namespace os
