#include "Stage.h"

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
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

}  // namespace

Stage::Stage() {
  std::string folder = RuntimeFolder::Path() + "/host-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("cannot make " + folder);
  folder_ = fs::canonical(folder);
  Place(ThisProgram(), Host());
}

Stage::~Stage() {
  EndProcessesBelow(folder_);  // usually all have ended by now
  std::error_code ignored;
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
