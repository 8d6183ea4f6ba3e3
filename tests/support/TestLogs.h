#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tolm::test {

/// The folder that TOLM_TEST_LOG_FOLDER names: what any logger of ours says in a test is to lie there, so
/// that it can be searched. Nothing when there is none, as usual.
std::optional<std::filesystem::path> TestLogFolder();

/// A file of this process's own in that folder.
std::optional<std::string> TestLogFile(std::string_view what);

/// No bound that any test comes to.
inline constexpr std::size_t kTestLogBytes = std::size_t{1} << 33;

/// Adds `text` to this process's file of that name; nothing happens without a folder.
void KeepForSearch(std::string_view what, std::string_view text);

/// Copies the log files of programs below `folder`, which is about to be removed.
void KeepLogsBelow(const std::filesystem::path& folder);

}  // namespace tolm::test
