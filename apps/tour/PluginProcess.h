#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tour {

/// A program that runs as a child of this one and never outlives it, however this one ends.
class PluginProcess {
 public:
  /// Told something about the process, on a thread of this object.
  using Handler = std::function<void(const std::string& text)>;

  /// Starts it. `on_line` is told each line that it prints, `on_end` at last how it ended, in words. To be
  /// called on the main thread: the child dies with the thread that made it. Throws std::runtime_error
  /// when that fails.
  PluginProcess(const std::string& program, std::vector<std::string> arguments, Handler on_line,
                Handler on_end);
  /// Kills it if it still runs.
  ~PluginProcess();
  PluginProcess(const PluginProcess&) = delete;
  PluginProcess& operator=(const PluginProcess&) = delete;

  pid_t id() const { return id_; }
  void Kill();

 private:
  void Watch(int output, const Handler& on_line, const Handler& on_end);

  pid_t id_ = -1;
  std::mutex mutex_;
  bool ended_ = false;  // guarded by mutex_
  std::thread watcher_;
};

}  // namespace tour
