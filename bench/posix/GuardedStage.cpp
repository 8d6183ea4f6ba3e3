#include "posix/GuardedStage.h"

#include <fstream>
#include <stdexcept>

#include "Process.h"
#include "posix/ProcessesBelow.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kAgent[] = "TolmAgent/TolmAgent/TolmAgent_Exe64.exe";
constexpr char kGuard[] = "TolmAgent/TolmGuard/TolmGuard.exe";

void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  fs::copy_file(from, to);
}

}  // namespace

GuardedStage::GuardedStage() {
  for (const char* const program : {kAgent, kGuard}) {
    Place(ThisProgram().parent_path() / program, folder() / program);
  }
}

fs::path GuardedStage::PluginProgram(const std::string& id) const {
  return folder() / "plugins" / id / ThisProgram().filename();
}

void GuardedStage::PlacePlugin(const std::string& id) const {
  const fs::path program = PluginProgram(id);
  Place(ThisProgram(), program);
  const fs::path manifest = program.parent_path() / "plugin.json";
  std::ofstream file(manifest);
  file << "{\"program\": \"" << program.filename().string()
       << "\", \"arguments\": [\"--role\", \"guarded\", \"--id\", \"" << id << "\"]}\n";
  if (!file.flush()) throw std::runtime_error("cannot write " + manifest.string());
}

pid_t GuardedStage::PluginProcess(const std::string& id) const {
  const auto processes = ProcessesBelow(PluginProgram(id).parent_path());
  if (processes.size() != 1) {
    throw std::runtime_error(std::to_string(processes.size()) + " processes run the plugin " + id);
  }
  return processes.begin()->first;
}

}  // namespace bench
