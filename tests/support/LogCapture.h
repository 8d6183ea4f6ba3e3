#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace tolm::test {

/// One captured line. Lines are equal when level, tag, function and text are.
struct LogLine {
  int level = 0;
  std::string tag;
  std::string function;  ///< as it stands in front; empty when `whole` has another shape than a log line
  std::string text;      ///< between the function and the place; all of `whole` when it has another shape
  std::string file;
  int line = 0;
  std::string whole;
};

bool operator==(const LogLine& a, const LogLine& b);
std::ostream& operator<<(std::ostream& out, const LogLine& line);

/// Takes "[function]text[file(line)]" apart.
LogLine ParseLogLine(int level, std::string_view tag, std::string_view whole);

/// While it lives, every log line of at least its level is kept here and nothing goes to stderr. At most
/// one at a time.
class LogCapture {
 public:
  /// `observer` is told each line in the order in which they are kept, on the thread that logs.
  explicit LogCapture(int level = 1, std::function<void(const LogLine&)> observer = {});
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void SetLevel(int level);
  std::vector<LogLine> Lines() const;
  /// The lines of functions whose qualified name ends with `function`.
  std::vector<LogLine> LinesOf(std::string_view function) const;
  std::size_t CountOf(const LogLine& line) const;
  bool Has(const LogLine& line) const { return CountOf(line) != 0; }
  void Clear();

 private:
  static void Receive(int level, const char* tag, const char* text, void* user);

  const std::function<void(const LogLine&)> observer_;
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;  // guarded by mutex_
};

}  // namespace tolm::test
