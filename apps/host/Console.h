#pragma once

#include <deque>
#include <string>

#include "os/Mutex.h"

namespace host {

/// What comes from stdin and from signals, line by line, and what goes to stdout. Any thread may use it.
class Console {
 public:
  /// Starts to read stdin. Its end, Ctrl-C and a polite kill are the line "stop". Before other threads start;
  /// once in a process, and never destroyed, since its threads last as long as the process.
  static Console& Open();

  /// The next line; waits for it.
  std::string NextLine();
  /// Prints a whole line at once.
  void Print(const std::string& line);

 private:
  Console() = default;
  void Push(std::string line);

  os::Mutex mutex_;
  os::Condition changed_;
  std::deque<std::string> lines_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace host
