#pragma once

#include <filesystem>
#include <ostream>
#include <string>

namespace guard {

/// Why `program` cannot be run here, as far as its file tells; empty when nothing speaks against it.
/// `reference` is a program that does run here: one for another kind of machine is recognised by it.
std::string WhyNotRunnable(const std::filesystem::path& program, const std::filesystem::path& reference);

/// Reads every manifest below `folder`, and says each fault of them and of the programs that they name in
/// a line of its own, then a line that sums up. Whether there was none.
bool CheckManifests(const std::filesystem::path& folder, const std::filesystem::path& reference,
                    std::ostream& out);

}  // namespace guard
