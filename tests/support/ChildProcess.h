#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/System.h"

namespace tolm::test {

/// How long a test waits for what is expected: long, so that a loaded machine makes none fail.
inline constexpr std::chrono::seconds kPatience{40};

/// How a process ended.
struct Exit {
  int status = -1;      ///< when it ended by itself
  bool killed = false;  ///< as by ChildProcess::Kill or KillProcess
  bool operator==(const Exit&) const = default;
};
inline constexpr Exit kKilled{-1, true};

std::ostream& operator<<(std::ostream& out, const Exit& exit);

class NativeChild;

/// A child of this process, killed with it and with this object. To be made on the main thread, since a
/// child may die with the thread that made it. What it prints is kept, with line feeds only.
class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> command);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  ProcessId id() const;
  /// All four do nothing when it has ended.
  void Kill();
  void AskToEnd();
  /// As Ctrl-C does.
  void Interrupt();
  void Freeze();
  void Thaw();
  /// Into its stdin, with a line feed behind it.
  void Type(const std::string& line);
  void CloseInput();

  /// Waits until a line with `text` in it was printed; which line, or nothing.
  std::optional<std::string> WaitForLine(const std::string& text,
                                         std::chrono::milliseconds limit = kPatience);
  /// Waits until `count` lines with `text` in them were printed.
  bool WaitForLines(const std::string& text, std::size_t count, std::chrono::milliseconds limit = kPatience);
  std::size_t CountLines(const std::string& text) const;
  /// Nothing when it still runs after `limit`.
  std::optional<Exit> WaitExit(std::chrono::milliseconds limit = kPatience);
  std::string Output() const;

 private:
  template <typename Act>
  void WhileItRuns(Act&& act);
  void Watch();
  /// REQUIRES: mutex_ is held.
  std::size_t Count(const std::string& text) const;

  const std::unique_ptr<NativeChild> native_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Both are guarded by mutex_.
  std::string printed_;
  std::optional<Exit> exit_;
  std::thread watcher_;
};

}  // namespace tolm::test
