#pragma once

#include <filesystem>
#include <string>

namespace os {

/// The path that a text in UTF-8 names. A path that is made from the narrow text itself is another one where
/// paths are wide: each byte becomes a letter, or a code page is asked. The way back, path::string(), is the
/// standard library's and gives UTF-8 with MinGW's. Throws std::filesystem::filesystem_error when paths are
/// wide and the text is not UTF-8.
inline std::filesystem::path Utf8Path(const std::string& text) {
  return std::u8string(text.begin(), text.end());
}

}  // namespace os
