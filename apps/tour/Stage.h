#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Processes.h"

namespace tour {

/// A host's folder as an installation lays it out, in the temporary directory. Programs have their system's
/// suffix; where programs look for libraries beside themselves, the frame's lies there as well:
///
///   frame_tour                                    this program
///   LpcFrame.xml                                  the port of the guard's endpoint
///   TolmAgent/TolmAgent/TolmAgent_Exe64.exe
///   TolmAgent/TolmGuard/TolmGuard.exe
///   TolmAgent/log/                                what the agent, the guard and the plugins print
///   plugins/kitchen/plugin.json, tour_kitchen     and the same for the waiter
///   run/                                          endpoints, events and locks of this tour alone, where
///                                                 these are files
///
/// Functions throw std::runtime_error or std::filesystem::filesystem_error with what went wrong.
class Stage {
 public:
  /// Lays out a fresh folder with copies of the programs beside this one, and goes on as the frame_tour in
  /// it, with `arguments` and "--folder". What it returns, where it returns, is the exit status.
  static int BuildAndEnter(const std::vector<std::string>& arguments);

  /// The stage that this program was entered on; its endpoint is called `endpoint`.
  Stage(std::filesystem::path folder, std::string endpoint)
      : folder_(std::move(folder)), endpoint_(std::move(endpoint)) {}
  /// Removes it, but for this program where a program that runs cannot be removed: Enter does that.
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  /// This program, and the folder of what is the tour's alone.
  std::filesystem::path Program() const;
  std::filesystem::path RuntimeFolder() const { return folder_ / "run"; }
  std::filesystem::path LogOf(const std::string& id) const {
    return folder_ / "TolmAgent/log" / (id + ".log");
  }
  /// The file name of the plugin's program.
  static std::string PluginProgram(const std::string& id);

  /// The processes that run a program of the folder, but for this one: id and program name.
  std::map<ProcessId, std::string> Processes() const;
  /// The one that runs `program`; 0 when there is none, or more than one.
  ProcessId ProcessOf(const std::string& program) const;
  /// Whether somebody holds the event by which the agent is asked to end.
  bool AgentHasEvent() const;
  /// Endpoints, events and locks that are there. Where they are no files, locks are not looked for: they are
  /// there as long as the processes that hold them.
  std::vector<std::string> RuntimeObjects() const;

 private:
  const std::filesystem::path folder_;
  const std::string endpoint_;
};

}  // namespace tour
