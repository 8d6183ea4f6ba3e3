#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace tour {

/// Follows the file into which the guard writes what one plugin prints.
class PluginLog {
 public:
  explicit PluginLog(std::filesystem::path path) : path_(std::move(path)) {}

  /// Waits until a line behind those that were found so far ends with `text`; false after `limit`.
  bool WaitFor(const std::string& text, std::chrono::milliseconds limit);

 private:
  bool Find(const std::string& text);

  const std::filesystem::path path_;
  std::size_t read_ = 0;  ///< bytes up to the end of the last line that was found
};

}  // namespace tour
