#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "EndReports.h"
#include "GuardMessages.h"
#include "PluginSupervisor.h"
#include "Scheduler.h"

namespace guard {

struct SupervisorOptions {
  std::filesystem::path plugins;      ///< the folder with a folder for each plugin
  bool plugins_may_move = false;      ///< whether the frame's main process path says where that is
  std::filesystem::path logs;         ///< the folder for the plugins' output
  Milliseconds lost_grace{10000};     ///< how long plugins run on without a frame
  Milliseconds longest_stop{2500};    ///< when the guard itself ends, no plugin's grace is longer
  Milliseconds wait_after_kill{300};  ///< and so long it waits for the ends of those that it killed
};

/// All plugins, and what the frame wants of them. All operations are for the scheduler's thread, and none
/// of them blocks.
class Supervisor {
 public:
  Supervisor(SupervisorOptions options, Scheduler& scheduler, FrameChannel& channel, ProcessStarter start,
             std::function<double()> random);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  void OnFrameConnected();
  void OnFrameText(const std::string& text);
  void OnFrameLost();
  /// Ends all plugins in order and calls `done` when they are gone, or have been killed. Nothing is started
  /// any more. Later calls do nothing.
  void Shutdown(std::function<void()> done);

  const std::filesystem::path& plugins_folder() const { return options_.plugins; }
  /// Null for a plugin that was never to be started.
  const PluginSupervisor* plugin(const std::string& id) const;

 private:
  void On(const FrameMessage& message, const FrameStarted&);
  void On(const FrameMessage& message, const StartPlugins& start);
  void On(const FrameMessage& message, const SetProtection& protection);
  void On(const FrameMessage& message, const StartPlugin& start);
  void On(const FrameMessage& message, const StopPlugin& stop);
  void On(const FrameMessage& message, const InitStatesChanged&);
  void On(const FrameMessage& message, const FrameEnds&);
  void On(const FrameMessage& message, const InitStates& states);
  void On(const FrameMessage& message, const MainProcessPath& main_process);

  void StartListed();
  void Start(const std::string& id, bool at_once);
  void StopAll(PluginSupervisor::StopWay way);
  PluginSupervisor* Find(const std::string& id);
  void OnPluginEnded(const std::string& id);
  void ReportEnd(const PluginSupervisor& plugin);
  void AskForStates();
  void FinishShutdownWhenDone();

  SupervisorOptions options_;
  Scheduler& scheduler_;
  FrameChannel& channel_;
  const PluginSurroundings surroundings_;

  std::map<std::string, std::shared_ptr<PluginSupervisor>> plugins_;
  std::vector<std::string> listed_;  // by the frame, the last time
  bool is_list_in_force_ = false;    // listed_ is what the frame wants
  std::string command_line_;
  std::map<std::string, bool> init_states_;
  EndReports ends_;
  Scheduler::TimerId lost_timer_ = 0;
  bool shutting_down_ = false;
  std::function<void()> done_;
  Scheduler::TimerId shutdown_timer_ = 0;
};

}  // namespace guard
