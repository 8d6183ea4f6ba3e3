#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Manifest.h"
#include "OutputFile.h"
#include "Process.h"
#include "RestartPolicy.h"
#include "Scheduler.h"

namespace guard {

/// What every plugin's supervisor needs. All must outlive the supervisors.
struct PluginSurroundings {
  Scheduler& scheduler;
  ProcessStarter start;
  std::function<double()> random;  ///< from 0 to below 1
  /// A process of the plugin that had been started has ended. Its state says already whether a successor
  /// is due, kWaiting, and none has been started yet.
  std::function<void(const std::string& plugin_id)> on_end;
  /// Whether no word on an earlier end is under way any more; each start waits for that.
  std::function<bool(const std::string& plugin_id)> is_end_settled = [](const std::string&) { return true; };
};

/// One plugin: its process, its restarts and its end. All operations are for the scheduler's thread, and
/// none of them blocks.
///
///            Start                      ends badly
///   kIdle ──────────► kRunning ──────────────────────► kWaiting ──(delay)──► kRunning
///     ▲                  │ Stop            └─ gives up, or is not to be restarted ──► kIdle
///     │                  ▼
///     └──── ends ─── kStopping: [lets it end ─(grace)─►] asked to end ─(grace)─► its tree is killed
///                        └ ends, and Start was called meanwhile ──► kRunning
class PluginSupervisor : public std::enable_shared_from_this<PluginSupervisor> {
 public:
  enum class State { kIdle, kRunning, kWaiting, kStopping };
  enum class StopWay {
    kAsk,       ///< is asked to end at once
    kLetItEnd,  ///< somebody else has asked it: it has one grace more for that
  };

  static std::shared_ptr<PluginSupervisor> Make(std::string id, std::filesystem::path log_file,
                                                const PluginSurroundings& surroundings);
  /// Kills what runs.
  ~PluginSupervisor();
  PluginSupervisor(const PluginSupervisor&) = delete;
  PluginSupervisor& operator=(const PluginSupervisor&) = delete;

  /// Wants it to run as `manifest` says, with `extra_arguments` behind those of the manifest: nothing
  /// happens when it runs with the same ones already, and it is stopped in order and started again when it
  /// runs with others. One that has ended, been stopped or given up is started, and one that waits for
  /// its restart as well when `at_once` or the arguments are others. From now on it is protected.
  void Start(Manifest manifest, std::vector<std::string> extra_arguments, bool at_once);
  /// Wants it not to run. May be called again; a stop that lets it end becomes one that asks, not the other
  /// way round, and a grace is never made longer.
  void Stop(StopWay way, std::optional<Milliseconds> longest_grace = std::nullopt);
  /// Whether it is restarted when it ends. Taking the protection cancels a restart that is due.
  void SetProtected(bool is_protected);

  const std::string& id() const { return id_; }
  State state() const { return state_; }
  bool is_protected() const { return is_protected_; }
  bool has_process() const { return process_ != nullptr; }

 private:
  /// How far a stop has gone.
  enum class Rung { kLetItEnd, kAsked, kKilled };

  PluginSupervisor(std::string id, std::filesystem::path log_file, const PluginSurroundings& surroundings);

  void StartWhenSettled();
  void StartProcess();
  void OnEnded(std::uint64_t run, const os::ProcessEnd& end);
  void FollowEnd(Milliseconds ran_for, bool crashed);
  void Climb(Rung rung);
  void SetTimer(Milliseconds delay, void (PluginSupervisor::*then)());
  void CancelTimer();
  void OnGraceOver();
  void Diagnose() noexcept;

  const std::string id_;
  const PluginSurroundings& surroundings_;
  const std::shared_ptr<OutputFile> output_;  // shared with the handlers of processes

  Manifest manifest_;
  std::vector<std::string> extra_arguments_;
  std::optional<RestartPolicy> policy_;
  State state_ = State::kIdle;
  bool is_protected_ = true;
  bool start_again_ = false;  // once it has been stopped
  Rung rung_ = Rung::kLetItEnd;
  Milliseconds grace_{0};  // of this stop
  TimePoint grace_over_;
  Scheduler::TimerId timer_ = 0;

  std::unique_ptr<Process> process_;
  std::uint64_t run_ = 0;  // counts the processes
  TimePoint started_at_;
  std::string start_failure_;  // the one that was said last; empty after a start that went well

  std::string diagnosis_;  // of a bad end, which waits for the last of the output
  Scheduler::TimerId diagnosis_timer_ = 0;
};

}  // namespace guard
