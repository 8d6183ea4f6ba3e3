#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "support/System.h"

namespace tolm::test {

/// What a process printed, as it comes in.
class Printed {
 public:
  void Add(std::string_view piece);
  std::string Text() const;
  /// The number behind `word` at the beginning of a line, once such a line is complete.
  std::optional<ProcessId> NumberAfter(const std::string& word) const;
  /// Waits for it; -1 when it does not come.
  ProcessId WaitForNumberAfter(const std::string& word) const;
  bool WaitForText(const std::string& text) const;

 private:
  mutable std::mutex mutex_;
  std::string text_;  // guarded by mutex_
};

/// Ended, whether or not somebody has collected it.
bool IsGone(ProcessId id);
bool WaitUntilGone(ProcessId id);

}  // namespace tolm::test
