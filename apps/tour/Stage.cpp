#include "Stage.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "Entry.h"
#include "System.h"
#include "common/AgentNames.h"
#include "os/ExecutablePath.h"
#include "os/LocalStream.h"
#include "os/NamedEvent.h"
#include "os/Utf8Path.h"

namespace tour {
namespace {

namespace fs = std::filesystem;

constexpr char kAgent[] = "TolmAgent/TolmAgent/TolmAgent_Exe64.exe";
constexpr char kGuard[] = "TolmAgent/TolmGuard/TolmGuard.exe";

void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  fs::copy_file(from, to);
}

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

void BuildIn(const Stage& stage) {
  const fs::path own = os::Utf8Path(os::ExecutablePath());
  const fs::path built = own.parent_path();
  const fs::path& folder = stage.folder();
  Place(own, stage.Program());
  // Empty where a program knows where its libraries are.
  const fs::path library = TOLM_LIBRARY_BESIDE_PROGRAMS;
  if (!library.empty()) Place(built / library, folder / library);
  Place(built / kAgent, folder / kAgent);
  Place(built / kGuard, folder / kGuard);
  for (const std::string id : {"kitchen", "waiter"}) {
    const std::string program = Stage::PluginProgram(id);
    const fs::path plugin = folder / "plugins" / id;
    Place(built / program, plugin / program);
    Write(plugin / "plugin.json", "{\n  \"program\": \"" + program + "\"\n}\n");
  }
  Write(folder / "LpcFrame.xml",
        "<Config>\n  <ClientPort>" + std::to_string(FreePort()) + "</ClientPort>\n</Config>\n");
  fs::create_directory(stage.RuntimeFolder());
  fs::permissions(stage.RuntimeFolder(), fs::perms::owner_all);
}

std::string AgentEvent(const fs::path& folder) {
  std::string agent = (folder / kAgent).string();
  std::replace(agent.begin(), agent.end(), '/', '\\');
  return TolmLPCFrame::AgentEventName(agent);
}

}  // namespace

int Stage::BuildAndEnter(const std::vector<std::string>& arguments) {
  const Stage stage(MakeTemporaryFolder("tolm-tour-"), {});
  BuildIn(stage);
  std::vector<std::string> words{"--folder", stage.folder().string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  SetVariable("XDG_RUNTIME_DIR", stage.RuntimeFolder().string());
  return Enter(stage.folder(), stage.Program(), words);
}

Stage::~Stage() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

fs::path Stage::Program() const {
  return folder_ / "frame_tour" TOLM_PROGRAM_SUFFIX;
}

std::string Stage::PluginProgram(const std::string& id) {
  return "tour_" + id + TOLM_PROGRAM_SUFFIX;
}

std::map<ProcessId, std::string> Stage::Processes() const {
  std::map<ProcessId, std::string> processes;
  for (const auto& [id, program] : ProcessesBelow(folder_)) processes[id] = program.filename().string();
  return processes;
}

ProcessId Stage::ProcessOf(const std::string& program) const {
  ProcessId found = 0;
  for (const auto& [id, name] : Processes()) {
    if (name != program) continue;
    if (found != 0) return 0;
    found = id;
  }
  return found;
}

bool Stage::AgentHasEvent() const {
  return os::NamedEvent::Open(AgentEvent(folder_)) != nullptr;
}

std::vector<std::string> Stage::RuntimeObjects() const {
  std::vector<std::string> objects;
  for (const auto& entry : fs::recursive_directory_iterator(RuntimeFolder())) {
    if (!entry.is_directory()) objects.push_back(entry.path().string());
  }
  if (AgentHasEvent()) objects.push_back(AgentEvent(folder_));
  if (os::SystemTransport().Connect(endpoint_).error != os::EndpointError::kNobodyListens) {
    objects.push_back("endpoint " + endpoint_);
  }
  return objects;
}

}  // namespace tour
