#pragma once

#include <string>

#include "Handle.h"

namespace os {

/// What cannot be written in the other form is replaced by the replacement character. Empty for empty texts.
std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

}  // namespace os
