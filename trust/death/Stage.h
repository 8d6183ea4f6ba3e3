#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Tally.h"
#include "support/ChildProcess.h"
#include "support/TempDirectory.h"

namespace trust::death {

/// How long anything may take that is to come.
inline constexpr std::chrono::seconds kPatience{60};

/// A host's folder as it is installed, with a runtime folder of its own; and the host. What still runs of it
/// at the end is killed. To be used on the main thread.
class Stage {
 public:
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  std::filesystem::path path() const { return directory_.path(); }
  std::filesystem::path Host() const { return path() / "death_host"; }
  std::filesystem::path Agent() const { return path() / "TolmAgent" / "TolmAgent" / "TolmAgent_Exe64.exe"; }
  const std::filesystem::path& guard() const { return guard_; }
  std::filesystem::path Plugin(const std::string& id) const { return PluginFolder(id) / "death_plugin"; }
  std::filesystem::path PluginFolder(const std::string& id) const { return path() / "plugins" / id; }

  /// Each calls with so many threads; 0: it calls nobody.
  void AddPlugins(const std::vector<std::string>& ids, int load);
  /// Puts a program between the agent and the guard that can be held (GateMain.cpp).
  void AddGate();
  /// What the plugin's next life does; see PluginScripts.h.
  void Script(const std::string& id, const std::string& word) const;

  /// Starts the host and waits until its frame listens.
  tolm::test::ChildProcess& StartHost(bool shows_events);
  tolm::test::ChildProcess& host() { return *host_; }
  /// Kills it, and waits for its end.
  void KillHost();
  /// Kills a process and waits until the system has freed all that it held: a host that starts earlier takes
  /// an agent that is dying for one that lives (docs/limits.md).
  static void KillAndWait(tolm::test::ProcessId process);
  /// Stops it in order; whether it ended well and within kPatience.
  bool StopHost();

  /// What runs of the folder.
  std::map<tolm::test::ProcessId, std::filesystem::path> Processes() const;
  std::vector<tolm::test::ProcessId> ProcessesOf(const std::filesystem::path& program) const;
  /// Waits until there is one.
  tolm::test::ProcessId AnyProcessOf(const std::filesystem::path& program) const;
  /// Waits until host, agent, guard and plugins run, each once, and nothing else; what does not belong there.
  std::vector<std::string> WrongProcesses() const;
  /// Waits until nothing runs and the runtime folder is empty: the processes and the files that stay.
  std::size_t ProcessesThatStay() const;
  std::size_t FilesThatStay() const;
  /// For the reader of a failure: logs of agent and guard, and what the host printed.
  void ShowLogs() const;

  Tally& tally() const { return tally_; }
  const std::vector<std::string>& plugins() const { return plugins_; }

 private:
  std::string TallyPath() const { return (path() / "tally").string(); }

  const tolm::test::TempDirectory directory_;
  const tolm::test::EnvironmentValue runtime_;
  Tally& tally_;
  std::filesystem::path guard_;  // what runs, behind the gate if there is one
  std::vector<std::string> plugins_;
  std::unique_ptr<tolm::test::ChildProcess> host_;
};

}  // namespace trust::death
