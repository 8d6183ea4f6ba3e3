#pragma once

// The processes of a run. None of them outlives its parent, however that ends. Twin files:
// posix/Process.cpp and windows/Process.cpp.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Channel.h"

namespace bench {

/// The program that runs.
std::filesystem::path ThisProgram();

/// This program once more, in a process of its own, with `arguments` and a channel to it.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments) : Child(ThisProgram().string(), arguments) {}
  /// A copy of this program that lies elsewhere.
  Child(const std::string& program, const std::vector<std::string>& arguments);
  /// Ends it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  Channel& channel() { return *channel_; }
  /// Gives an order and waits until it has been done.
  std::vector<double> Do(Task task, std::size_t size, std::size_t count);
  std::vector<double> Do(const Order& order);
  /// Waits until it says something, or ends. A std::runtime_error when that takes longer than
  /// `time_out_seconds`, or this process is asked to end meanwhile.
  void AwaitWord(int time_out_seconds);

 private:
  std::intptr_t process_ = -1;  // an id or a handle
  std::unique_ptr<Channel> channel_;
};

/// In a child: the channel to the process that made it, to be taken over once.
std::intptr_t ParentDescriptor();

/// Raises this process's priority and that of its later children, so that other programs disturb less;
/// false when the system does not allow it.
bool RaisePriority();
/// Whether that would succeed.
bool MayRaisePriority();

/// Keeps this process and all later children on `core`.
void PinTo(int core);
/// The core to be used when none was given: the last of those that are allowed.
int LastCore();

/// How busy the machine is, in the system's words; empty when it has none.
std::string Load();

/// The processor's time that this process has used since it was started.
double ProcessorMilliseconds();

/// How much memory of this process was resident at most since ForgetPeak, which gives how much is now, in
/// KiB. Both throw where the system does not forget a peak.
double PeakKiB();
double ForgetPeak();

/// Ends whose program lies below `folder`: an agent stands on its own feet, and so do those that it starts.
/// Says so when it cannot.
void EndProcessesBelow(const std::filesystem::path& folder);

/// What has to lie in a folder, this program first, for this program to run there.
std::vector<std::filesystem::path> FilesToRunElsewhere();

/// A folder of this run's own as the user's runtime folder. Endpoints lie in it, or have it in their names.
class RuntimeFolder {
 public:
  RuntimeFolder();
  ~RuntimeFolder();
  RuntimeFolder(const RuntimeFolder&) = delete;
  RuntimeFolder& operator=(const RuntimeFolder&) = delete;

  /// Where it is, in all processes of the run.
  static std::string Path();

 private:
  std::filesystem::path path_;
};

/// From here on, a request to end ends what AwaitWord waits for, with an exception.
void EndInOrderOnSignals();

}  // namespace bench
