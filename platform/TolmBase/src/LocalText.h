#pragma once

#include <string>

namespace Tolm::Base {

// Twin files: posix/LocalText.cpp and windows/LocalText.cpp.

/// Text in the system's local code page as UTF-8, and back. What the other form cannot express becomes "?" on
/// the way to the code page, which no file's name can hold, and the replacement character on the way to
/// UTF-8.
std::string LocalToUtf8(const std::string& local);
std::string Utf8ToLocal(const std::string& utf8);

}  // namespace Tolm::Base
