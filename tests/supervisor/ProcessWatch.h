#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolm::test {

/// What a process printed, as it comes in.
class Printed {
 public:
  void Add(std::string_view piece);
  std::string Text() const;
  /// The number behind `word` at the beginning of a line, once such a line is complete.
  std::optional<pid_t> NumberAfter(const std::string& word) const;
  /// Waits for it; -1 when it does not come.
  pid_t WaitForNumberAfter(const std::string& word) const;
  bool WaitForText(const std::string& text) const;

 private:
  mutable std::mutex mutex_;
  std::string text_;  // guarded by mutex_
};

/// Ended, whether or not somebody has collected it.
bool IsGone(pid_t id);
bool WaitUntilGone(pid_t id);

/// Children of `parent` that have ended and wait to be collected.
std::size_t CountZombiesOf(pid_t parent);

std::size_t CountOpenDescriptors();

}  // namespace tolm::test
