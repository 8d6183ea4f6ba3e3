#pragma once

#include <sys/types.h>
#include <filesystem>
#include <map>

namespace bench {

/// Whose program lies below `folder`, a path without links, with that program.
std::map<pid_t, std::filesystem::path> ProcessesBelow(const std::filesystem::path& folder);

}  // namespace bench
