#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tour {

/// A host's folder as an installation lays it out, in the temporary directory:
///
///   frame_tour                                    this program
///   LpcFrame.xml                                  the port of the guard's endpoint
///   TolmAgent/TolmAgent/TolmAgent_Exe64.exe
///   TolmAgent/TolmGuard/TolmGuard.exe
///   TolmAgent/log/                                what the agent, the guard and the plugins print
///   plugins/kitchen/plugin.json, tour_kitchen     and the same for the waiter
///   run/                                          endpoints, events and locks of this tour alone
///
/// Functions throw std::runtime_error or std::filesystem::filesystem_error with what went wrong.
class Stage {
 public:
  /// Lays out a fresh folder with copies of the programs beside this one, and becomes the frame_tour in it,
  /// with `arguments` and "--folder". Does not return.
  [[noreturn]] static void BuildAndEnter(const std::vector<std::string>& arguments);

  /// The stage that this program was entered on.
  explicit Stage(std::filesystem::path folder) : folder_(std::move(folder)) {}
  /// Removes it.
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  std::filesystem::path LogOf(const std::string& id) const {
    return folder_ / "TolmAgent/log" / (id + ".log");
  }

  /// The processes that run a program of the folder, but for this one: id and program name.
  std::map<pid_t, std::string> Processes() const;
  /// The one that runs `program`; 0 when there is none, or more than one.
  pid_t ProcessOf(const std::string& program) const;
  /// Endpoints, events and locks that lie there.
  std::vector<std::string> RuntimeFiles() const;

 private:
  const std::filesystem::path folder_;
};

}  // namespace tour
