#include "Stage.h"

#include <signal.h>
#include <unistd.h>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "Process.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kAgent[] = "TolmAgent/TolmAgent/TolmAgent_Exe64.exe";
constexpr char kGuard[] = "TolmAgent/TolmGuard/TolmGuard.exe";
constexpr char kConfiguration[] = "LpcFrame.xml";

fs::path ThisProgram() {
  return fs::read_symlink("/proc/self/exe");
}

void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  fs::copy_file(from, to);
}

void Write(const fs::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

/// All whose program lies below `folder`, with that.
std::map<pid_t, fs::path> ProcessesBelow(const fs::path& folder) {
  std::map<pid_t, fs::path> processes;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    const fs::path program = fs::read_symlink(entry.path() / "exe", gone);
    if (!gone && program.string().starts_with(folder.string() + '/')) processes[id] = program;
  }
  return processes;
}

}  // namespace

Stage::Stage() {
  std::string folder = RuntimeFolder::Path() + "/host-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("cannot make " + folder);
  folder_ = fs::canonical(folder);
  Place(ThisProgram(), Host());
}

Stage::~Stage() {
  std::error_code ignored;
  try {
    // Who starts others goes first: the agent before the guard, that before the plugins. Usually all of
    // them have ended by now.
    for (const char* const starts_others : {kAgent, kGuard, ""}) {
      for (const auto& [id, program] : ProcessesBelow(folder_)) {
        if (program.string().ends_with(starts_others)) ::kill(id, SIGKILL);
      }
    }
  } catch (const std::exception&) {
    // What cannot be found cannot be ended; it ends by itself when its host has gone.
  }
  fs::remove_all(folder_, ignored);
}

void Stage::WritePort(const char* element, std::uint16_t port) const {
  const std::string name(element);
  Write(folder_ / kConfiguration,
        "<Config>\n  <" + name + '>' + std::to_string(port) + "</" + name + ">\n</Config>\n");
}

void Stage::RemovePort() const {
  fs::remove(folder_ / kConfiguration);
}

std::uint16_t Stage::Port() const {
  std::ifstream file(folder_ / kConfiguration);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::size_t at = text.find("Port>");
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  if (at == text.npos || std::from_chars(text.data() + at + 5, end, port).ec != std::errc()) {
    throw std::runtime_error("there is no port in the configuration");
  }
  return port;
}

void Stage::PlaceAgentAndGuard() const {
  for (const char* const program : {kAgent, kGuard}) {
    Place(ThisProgram().parent_path() / program, folder_ / program);
  }
}

fs::path Stage::PluginProgram(const std::string& id) const {
  return folder_ / "plugins" / id / kProgram;
}

void Stage::PlacePlugin(const std::string& id) const {
  const fs::path program = PluginProgram(id);
  Place(ThisProgram(), program);
  Write(program.parent_path() / "plugin.json",
        "{\"program\": \"" + std::string(kProgram) +
            "\", \"arguments\": [\"--role\", \"guarded\", \"--id\", \"" + id + "\"]}\n");
}

pid_t Stage::PluginProcess(const std::string& id) const {
  const auto processes = ProcessesBelow(PluginProgram(id).parent_path());
  if (processes.size() != 1) {
    throw std::runtime_error(std::to_string(processes.size()) + " processes run the plugin " + id);
  }
  return processes.begin()->first;
}

}  // namespace bench
