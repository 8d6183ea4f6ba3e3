#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "HostWatch.h"
#include "Inbox.h"
#include "Layout.h"
#include "Options.h"
#include "RestartBackoff.h"
#include "os/ChildProcess.h"

namespace tolm::agent {

/// Keeps the guard running until it is asked to end, or until the host is gone. Used on one thread.
class Agent {
 public:
  Agent(const Options& options, const Layout& layout, std::shared_ptr<Inbox> inbox);

  /// Returns when the guard has ended and nothing of it is left; `only_one` is then freed. False when it
  /// could not begin, since there is no event.
  bool Run(std::unique_ptr<os::ProcessLock> only_one);

 private:
  using Clock = std::chrono::steady_clock;

  void WorkUntilEnd();
  bool IsHostGone();
  Clock::time_point NextStep() const;
  void StartGuard();
  void TakeGuardEnd(const os::ProcessEnd& end);
  void StopGuard();

  const Options options_;
  const Layout layout_;
  const std::string host_executable_;  // empty: not watched
  const std::shared_ptr<Inbox> inbox_;

  HostWatch host_;
  RestartBackoff backoff_;
  Clock::time_point next_look_;   // for the host
  Clock::time_point next_start_;  // of the guard
  Clock::time_point started_;
  std::string last_fault_;  // of a start that failed; told once
  std::unique_ptr<os::ChildProcess> guard_;
};

}  // namespace tolm::agent
