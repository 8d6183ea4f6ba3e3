#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TolmBase/Singleton.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

/// What the frame says to the guard, and its hold on the agent. One instance in the process,
/// CLPCCommunicateWithTolmGuard::GetInstance(). Its messages are in docs/wire/guard-messages.md. May be
/// used by many threads; its mutex is held across no call.
class CLPCCommunicateWithTolmGuard {
 public:
  static CLPCCommunicateWithTolmGuard& GetInstance();

  // The agent.

  /// Starts the agent at `agent_path` unless one is running there, with the command line
  /// "agent_path" "main_process_path" role -process.
  void InitTolmAgent(const std::string& main_process_path, const std::string& agent_path,
                     const std::string& role);
  /// Asks the agent to end, waits for at most five seconds for its answer, and removes what is left of
  /// the guard and the agent below the running executable's folder.
  /// Each step is made, whatever fails before it.
  void UnInitTolmAgent();

  // What the guard is told.

  /// "NotifyLPCFrameInit"; true when the guard has answered within five seconds.
  bool NotifyGuardLPCFrameInit();
  /// Tells the guard that the frame is up (in the first call, three attempts), and then which plugins it may
  /// start and with which command line (once for each connection). May take fifteen seconds when no guard
  /// answers.
  void NotifyFrameInitedFinished(const std::string& cmdline);
  /// The same for a guard that has just connected, with the latest command line; nothing when it was told.
  void NotifyFrameInitedFinished();
  /// "SetProcessGuardStateList": which processes it is to watch; true when it has answered within three
  /// seconds.
  bool SetProcessGuardStateList(const std::map<std::string, bool>& states);
  /// "StartProcess" or "StopProcess".
  void ControlGuardProcess(const std::string& process_name, bool start);
  /// "NotifyState": a plugin has finished initialising.
  void NotifyState();
  /// "NotifyFrameUninit"; true when that was handed to the connection.
  bool NotifyFrameUninit();

  // What the guard asks.

  /// The answer to the "GetProcessInitStateList" that carried `guid`.
  std::string BuildProcessInitStateListResponse(const std::string& guid) const;
  /// The answer to the "GetMianProcessPath" that carried `guid`.
  std::string BuildMainProcessPathResponse(const std::string& guid) const;
  /// A "NotifyProcessState".
  void DealNotifyProcessState(const std::string& raw);

  // What the endpoint tells.

  /// Whether NotifyFrameInitedFinished has run in this life of the frame.
  bool IsFrameInitedFinished() const { return frame_inited_finished_; }
  /// A guard's connection has ended: the next one is told again.
  void ForgetFrameInitStateSent() TOLM_EXCLUDES(mutex_);
  /// The endpoint has closed: what was announced in this life of the frame does not hold for the next.
  void ForgetAnnouncement();

 private:
  friend class Tolm::Base::CSingleton<CLPCCommunicateWithTolmGuard>;
  CLPCCommunicateWithTolmGuard() = default;

  void AddVerifiedPlugin(const std::string& name) TOLM_EXCLUDES(mutex_);
  void SendFrameInitState(std::string text) TOLM_EXCLUDES(mutex_);
  std::uint64_t Life() const TOLM_EXCLUDES(mutex_);

  std::atomic<bool> need_notify_lpc_frame_init_{true};
  std::atomic<bool> frame_inited_finished_{false};

  mutable os::Mutex mutex_;
  std::string agent_event_name_ TOLM_GUARDED_BY(mutex_);
  std::string plugin_cmdline_ TOLM_GUARDED_BY(mutex_);
  std::vector<std::string> verified_plugins_ TOLM_GUARDED_BY(mutex_);
  bool frame_init_state_sent_ TOLM_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const std::string> frame_init_state_ TOLM_GUARDED_BY(mutex_);  ///< the notice's latest text
  std::uint64_t life_ TOLM_GUARDED_BY(mutex_) = 0;   ///< how often the endpoint has closed
  bool sending_ TOLM_GUARDED_BY(mutex_) = false;     ///< a thread is sending the notice
  bool send_again_ TOLM_GUARDED_BY(mutex_) = false;  ///< and is to look again when it has
  /// How often frame_init_state_sent_ was taken back.
  std::uint64_t forgotten_sends_ TOLM_GUARDED_BY(mutex_) = 0;
};

}  // namespace TolmLPCFrame
