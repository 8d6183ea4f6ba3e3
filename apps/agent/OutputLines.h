#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace tolm::agent {

/// Makes lines of what a process prints in pieces.
class OutputLines {
 public:
  /// Longer lines are cut into several.
  static constexpr std::size_t kLongest = 4096;

  explicit OutputLines(std::function<void(const std::string& line)> on_line);

  /// An empty piece is the end, and completes a last line without a line feed.
  void Add(std::string_view piece);

 private:
  void Complete();

  const std::function<void(const std::string&)> on_line_;
  std::string line_;
};

}  // namespace tolm::agent
