#pragma once

// The processes of a run. None of them outlives its parent, however that ends.

#include <sys/types.h>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Channel.h"

namespace bench {

/// This program once more, in a process of its own, with `arguments` and a channel to it.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments);
  /// A copy of this program that lies elsewhere.
  Child(const std::string& program, const std::vector<std::string>& arguments);
  /// Ends it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  Channel& channel() { return *channel_; }
  /// Gives an order and waits until it has been done.
  std::vector<double> Do(Task task, std::size_t size, std::size_t count);

 private:
  pid_t process_ = -1;
  std::unique_ptr<Channel> channel_;
};

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

/// In a child: the channel to the process that made it.
inline constexpr int kChildDescriptor = 3;

/// Runs `work` in a copy of this process and gives what it returns. An exception in it, and its end before
/// it returned, are a std::runtime_error here. To be called while this process has one thread. The copy
/// and its children have a high priority, if the system allows it, so that other programs disturb less.
std::string RunApart(const std::function<std::string()>& work, int time_out_seconds);

/// Whether the system allows a higher priority.
bool MayRaisePriority();

/// Keeps this process and all later children on `core`.
void PinTo(int core);
/// The core to be used when none was given: the last of those that are allowed.
int LastCore();

/// Whose program lies below `folder`, a path without links, with that program.
std::map<pid_t, std::filesystem::path> ProcessesBelow(const std::filesystem::path& folder);
/// Ends them: an agent stands on its own feet, and so do those that it starts. Says so when it cannot.
void EndProcessesBelow(const std::filesystem::path& folder);

/// A folder of this run's own as the user's runtime folder, which is where endpoints are made.
class RuntimeFolder {
 public:
  RuntimeFolder();
  ~RuntimeFolder();
  RuntimeFolder(const RuntimeFolder&) = delete;
  RuntimeFolder& operator=(const RuntimeFolder&) = delete;

  /// Where it is, in all processes of the run.
  static std::string Path();

 private:
  std::string path_;
};

/// From here on SIGINT, SIGTERM and SIGHUP end what RunApart waits for, with an exception.
void EndInOrderOnSignals();

}  // namespace bench
