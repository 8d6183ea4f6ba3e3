#include "support/TestLogs.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "support/System.h"

namespace tolm::test {

namespace fs = std::filesystem;

std::optional<fs::path> TestLogFolder() {
  const char* const folder = std::getenv("TOLM_TEST_LOG_FOLDER");
  if (folder == nullptr || *folder == '\0') return std::nullopt;
  return folder;
}

std::optional<std::string> TestLogFile(std::string_view what) {
  const auto folder = TestLogFolder();
  if (!folder) return std::nullopt;
  return (*folder / (ThisProgram().stem().string() + "-" + std::to_string(OwnProcessId()) + "-" +
                     std::string(what) + ".log"))
      .string();
}

void KeepForSearch(std::string_view what, std::string_view text) {
  const auto file = TestLogFile(what);
  if (!file) return;
  std::ofstream(*file, std::ios::binary | std::ios::app) << text << '\n';
}

void KeepLogsBelow(const fs::path& folder) {
  const auto kept = TestLogFolder();
  if (!kept) return;
  static std::atomic<int> number{0};
  std::error_code ignored;  // what goes meanwhile is gone
  fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied, ignored);
  for (; !ignored && entry != fs::recursive_directory_iterator(); entry.increment(ignored)) {
    const std::string name = entry->path().filename().string();
    std::error_code unreadable;
    if (name.find(".log") == std::string::npos || !entry->is_regular_file(unreadable)) continue;
    const auto copy = TestLogFile(std::to_string(number++) + "-" + name);
    fs::copy_file(entry->path(), *copy, unreadable);
  }
}

}  // namespace tolm::test
