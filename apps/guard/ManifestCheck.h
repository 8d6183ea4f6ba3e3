#pragma once

#include <filesystem>
#include <ostream>

namespace guard {

/// Reads every manifest below `folder`, and says each fault of them and of the programs that they name in
/// a line of its own, then a line that sums up. Whether there was none.
bool CheckManifests(const std::filesystem::path& folder, std::ostream& out);

}  // namespace guard
