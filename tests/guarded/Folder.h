#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "os/UserPlaces.h"
#include "os/Utf8Path.h"
#include "support/Processes.h"
#include "support/TempDirectory.h"

namespace tolm::test {

/// A host's folder as it is installed: host, agent, guard, plugins, "LpcFrame.xml"; and a runtime folder
/// for all of its processes. What still runs of it at the end is killed.
class Folder {
 public:
  Folder();
  ~Folder();

  const std::filesystem::path& path() const { return directory_.path(); }
  std::filesystem::path Host() const { return ProgramFile(path() / "tolm_host"); }
  std::filesystem::path Agent() const { return path() / "TolmAgent" / "TolmAgent" / "TolmAgent_Exe64.exe"; }
  std::filesystem::path Guard() const { return path() / "TolmAgent" / "TolmGuard" / "TolmGuard.exe"; }
  std::filesystem::path Plugin(const std::string& id) const {
    return ProgramFile(path() / "plugins" / os::Utf8Path(id) / "guarded_plugin");
  }
  std::filesystem::path Config() const { return path() / "LpcFrame.xml"; }
  std::filesystem::path Log(const std::string& name) const {
    return path() / "TolmAgent" / "log" / os::Utf8Path(name + ".log");
  }

  /// `members` stand in the manifest beside "program" and "arguments".
  void AddPlugin(const std::string& id, const std::vector<std::string>& arguments = {},
                 const std::string& members = {}) const;
  /// The port that is in the file, under this element.
  int Port(const std::string& element) const;

  /// Every process that runs a program of the folder.
  std::map<ProcessId, std::filesystem::path> Processes() const { return ProcessesBelow(path()); }
  std::vector<ProcessId> ProcessesOf(const std::filesystem::path& program) const;
  /// Sockets, locks and events.
  std::vector<std::string> RuntimeFiles() const;

 private:
  const TempDirectory directory_;
  const EnvironmentValue runtime_;
};

std::string ReadAll(const std::filesystem::path& path);

}  // namespace tolm::test
