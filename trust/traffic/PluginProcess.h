#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Process.h"

namespace trust {

/// A plugin in a process of its own, this program with `--role plugin`, that does what it is told. Make it
/// while this process has one thread.
class PluginProcess {
 public:
  explicit PluginProcess(std::string id);

  const std::string& id() const { return id_; }
  int process() const { return process_; }
  std::string Url(const std::string& name) const { return '/' + id_ + '/' + name; }

  /// Connects to the host's endpoint.
  void Start(const std::string& endpoint);
  /// Gives an order, without waiting. Nobody else gives one until Finish has returned.
  void Begin(const std::string& order);
  /// The numbers that the answer to an order has; throws when it takes longer than `time_out_seconds`.
  std::vector<double> Finish(int time_out_seconds = 60);
  /// Both. From any thread: what is ordered meanwhile waits for its turn.
  std::vector<double> Do(const std::string& order, int time_out_seconds = 60);
  /// What the process has allocated.
  double AllocatedKiB() { return Do("heap").at(0); }

  /// Stops the process where it is, and lets it go on.
  void Halt() const;
  void GoOn() const;

 private:
  const std::string id_;
  bench::Child child_;
  int process_ = 0;
  std::mutex turn_;  // one order at a time
};

/// The plugin's side, until the other process ends. What it serves, for the id ID:
///   /ID/echo   what came      /ID/size   how many bytes the body had       /ID/make   a body of so many
///   bytes /ID/slow   an answer after so many milliseconds                        /ID/count  notifications
int RunPluginRole(const std::string& id);

}  // namespace trust
