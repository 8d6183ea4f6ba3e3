#pragma once

#include <string>

namespace Tolm::Base::GuidUtil {

/// A fresh random GUID (RFC 4122, version 4) as 36 characters, lower case, without braces. Thread-safe.
std::string CreateGuid();

}  // namespace Tolm::Base::GuidUtil
