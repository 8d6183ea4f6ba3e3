#pragma once

// Processes that begin as copies of this one.

#include <sys/types.h>
#include <functional>
#include <string>

namespace bench {

/// A copy of this process that does `work` and ends. To be made while this process has one thread.
class Copy {
 public:
  explicit Copy(const std::function<void()>& work);
  /// Ends it.
  ~Copy();
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;

  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
};

/// In a child: the descriptor of the channel to the process that made it.
inline constexpr int kChildDescriptor = 3;

/// In a new process, which must not stay when `parent` has gone already.
void EndWith(pid_t parent);

/// Ends a child of this process and waits until it has ended.
void Kill(pid_t process);

/// Runs `work` in a copy of this process and gives what it returns. An exception in it, and its end before
/// it returned, are a std::runtime_error here. To be called while this process has one thread.
std::string RunApart(const std::function<std::string()>& work, int time_out_seconds);

}  // namespace bench
