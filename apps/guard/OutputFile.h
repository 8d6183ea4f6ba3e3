#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "Manifest.h"
#include "os/Mutex.h"

namespace guard {

/// What one plugin writes, line by line with the time in front, in a file that is rotated: name.log, then
/// name.log.1, name.log.2 and so on. May be used by several threads at once.
///
///   2026-01-31 12:00:00.000 [guard] started, process 4711
///   2026-01-31 12:00:00.123 [out] what the plugin wrote
///   2026-01-31 12:00:00.123 [...] and how a very long line of it goes on
///
/// Bytes that could upset a terminal stand as \xNN. A file that cannot be written is reported in the
/// guard's log once, and is tried again every second; lines are lost meanwhile, and are counted.
class OutputFile {
 public:
  using Now = std::chrono::system_clock::time_point (*)();

  /// `now` gives the time for lines.
  OutputFile(std::filesystem::path path, const LogRules& rules, Now now = &std::chrono::system_clock::now);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// From now on the file is bounded by `rules`.
  void SetRules(const LogRules& rules);
  /// Output of the plugin as it comes; empty: there is no more, so an unfinished line is finished.
  void Write(std::string_view bytes);
  /// A line of the guard's own.
  void Note(std::string_view line);

  /// The last lines of the plugin since ForgetLastLines, oldest first, each cut off where it is very long.
  std::vector<std::string> LastLines() const;
  void ForgetLastLines();

 private:
  void AddByte(char byte) TOLM_REQUIRES(mutex_);
  void EndPiece(bool continues) TOLM_REQUIRES(mutex_);
  void WriteLine(std::string_view tag, std::string_view text) TOLM_REQUIRES(mutex_);
  bool Append(const std::string& line) TOLM_REQUIRES(mutex_);
  void Rotate() TOLM_REQUIRES(mutex_);
  std::filesystem::path OldFile(int n) const;

  const std::filesystem::path path_;
  const Now now_;

  mutable os::Mutex mutex_;
  LogRules rules_ TOLM_GUARDED_BY(mutex_);
  std::ofstream file_ TOLM_GUARDED_BY(mutex_);
  std::size_t size_ TOLM_GUARDED_BY(mutex_) = 0;
  bool failed_ TOLM_GUARDED_BY(mutex_) = false;
  std::size_t lost_lines_ TOLM_GUARDED_BY(mutex_) = 0;
  std::chrono::steady_clock::time_point retry_at_ TOLM_GUARDED_BY(mutex_);
  std::string line_ TOLM_GUARDED_BY(mutex_);           // of the plugin, not finished
  bool is_continued_ TOLM_GUARDED_BY(mutex_) = false;  // line_ goes on with a line that was cut
  std::deque<std::string> last_lines_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace guard
