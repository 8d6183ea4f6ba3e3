#pragma once

#include <filesystem>

namespace os {

/// Makes the file, empty and for this user alone, when it is not there; leaves it as it is when it is. What
/// opens it next says when that was not possible.
void MakePrivateFile(const std::filesystem::path& file);

/// Makes those of the folder and the folders above it that are not there, for this user alone.
void MakePrivateFolders(const std::filesystem::path& folder);

}  // namespace os
