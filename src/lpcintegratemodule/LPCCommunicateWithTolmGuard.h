#pragma once

#include <map>
#include <string>

#include "TolmBase/Singleton.h"

namespace TolmLPCFrame {

/// What the frame says to the guard, and its hold on the agent. One instance in the process,
/// CLPCCommunicateWithTolmGuard::GetInstance().
///
/// This build has no link to a guard: every operation reports that nothing was sent, by its result
/// where it has one, and does nothing else.
class CLPCCommunicateWithTolmGuard {
 public:
  static CLPCCommunicateWithTolmGuard& GetInstance();

  /// Starts the agent unless one is running.
  void InitTolmAgent(const std::string& main_process_path, const std::string& agent_path,
                     const std::string& role);
  /// Ends the agent and the guard.
  void UnInitTolmAgent();
  /// Tells the guard that the frame is up and which plugins it may start, with which command line.
  void NotifyFrameInitedFinished(const std::string& cmdline);
  /// Tells the guard that a plugin has finished initialising.
  void NotifyState();
  /// Asks the guard to start or stop one process.
  void ControlGuardProcess(const std::string& process_name, bool start);
  /// Tells the guard which processes it is to watch; true when it has acknowledged.
  bool SetProcessGuardStateList(const std::map<std::string, bool>& states);
  /// Tells the guard that the frame goes down; true when that was sent.
  bool NotifyFrameUninit();

 private:
  friend class Tolm::Base::CSingleton<CLPCCommunicateWithTolmGuard>;
  CLPCCommunicateWithTolmGuard() = default;
};

}  // namespace TolmLPCFrame
