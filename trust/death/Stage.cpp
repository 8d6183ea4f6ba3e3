#include "Stage.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "support/Processes.h"
#include "support/System.h"
#include "support/Wait.h"

namespace trust::death {
namespace {

namespace fs = std::filesystem;
using tolm::test::ProcessId;
using tolm::test::WaitFor;

constexpr std::size_t kShownBytes = 3000;

/// A link where the file system allows it: a program's path is what it was started by.
void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  std::error_code other_file_system;
  fs::create_hard_link(from, to, other_file_system);
  if (other_file_system) fs::copy_file(from, to);
}

void Write(const fs::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void ShowEnd(const std::string& what, const std::string& text) {
  std::printf("--- %s\n%s\n", what.c_str(),
              text.substr(text.size() - std::min(text.size(), kShownBytes)).c_str());
}

}  // namespace

Stage::Stage()
    : runtime_("XDG_RUNTIME_DIR", (directory_.path() / "run").string()),
      tally_(OpenTally(TallyPath())),
      guard_(path() / "TolmAgent" / "TolmGuard" / "TolmGuard.exe") {
  const fs::path built = DEATH_PROGRAMS;
  Place(built / "death_host", Host());
  Place(built / "TolmAgent/TolmAgent/TolmAgent_Exe64.exe", Agent());
  Place(built / "TolmAgent/TolmGuard/TolmGuard.exe", guard_);
  fs::create_directory(path() / "run");
  fs::permissions(path() / "run", fs::perms::owner_all);
  Write(path() / "LpcFrame.xml", "<Config>\n<ServerPort>" + std::to_string(tolm::test::FreePort()) +
                                     "</ServerPort>\n<ClientPort>" + std::to_string(tolm::test::FreePort()) +
                                     "</ClientPort>\n</Config>\n");
}

Stage::~Stage() {
  tolm::test::KillProcessesBelow(path());
}

void Stage::AddPlugins(const std::vector<std::string>& ids, int load) {
  std::string list;
  for (const std::string& id : ids) list += (list.empty() ? "" : ",") + id;
  for (const std::string& id : ids) {
    Place(fs::path(DEATH_PROGRAMS) / "death_plugin", Plugin(id));
    Write(PluginFolder(id) / "plugin.json",
          R"({"program": "death_plugin", "arguments": ["--tally", ")" + TallyPath() + R"(", "--load", ")" +
              std::to_string(load) + R"(", "--plugins", ")" + list +
              R"("], "restart": {"giveUpAfter": 0, "firstDelayMs": 5, "maxDelayMs": 20}})");
  }
  plugins_.insert(plugins_.end(), ids.begin(), ids.end());
}

void Stage::AddGate() {
  const fs::path gate = guard_;
  guard_.replace_filename("TheGuard.exe");
  fs::rename(gate, guard_);
  Place(fs::path(DEATH_PROGRAMS) / "death_gate", gate);
}

void Stage::Script(const std::string& id, const std::string& word) const {
  for (const char* const old : {"script.taken", "reached", "middle", "go"})
    fs::remove(PluginFolder(id) / old);
  Write(PluginFolder(id) / "script.part", word);
  fs::rename(PluginFolder(id) / "script.part", PluginFolder(id) / "script");
}

tolm::test::ChildProcess& Stage::StartHost(bool shows_events) {
  std::vector<std::string> command{Host().string(), "--tally", TallyPath()};
  if (shows_events) command.push_back("--show-events");
  command.insert(command.end(), plugins_.begin(), plugins_.end());
  Disturb(tally_, kEverybody);
  host_ = std::make_unique<tolm::test::ChildProcess>(std::move(command));
  if (!host_->WaitForLine("the frame listens", kPatience)) {
    ShowLogs();
    throw std::runtime_error("the host does not start");
  }
  return *host_;
}

void Stage::KillHost() {
  Disturb(tally_, kEverybody);
  host_->Kill();
  host_->WaitExit(kPatience);
}

void Stage::KillAndWait(ProcessId process) {
  if (process <= 0) return;  // others of these numbers are whole groups
  tolm::test::KillProcess(process);
  const fs::path threads = "/proc/" + std::to_string(process) + "/task";
  WaitFor(
      [&] {
        std::error_code gone;
        int left = 0;
        for (fs::directory_iterator thread(threads, gone); !gone && thread != fs::directory_iterator();
             thread.increment(gone)) {
          ++left;
        }
        return left == 0 || (left == 1 && !tolm::test::IsAlive(process));
      },
      kPatience);
}

bool Stage::StopHost() {
  Disturb(tally_, kEverybody);
  host_->Type("stop");
  return host_->WaitExit(kPatience) == tolm::test::Exit{0, false};
}

std::map<ProcessId, fs::path> Stage::Processes() const {
  return tolm::test::ProcessesBelow(path());
}

std::vector<ProcessId> Stage::ProcessesOf(const fs::path& program) const {
  std::vector<ProcessId> ids;
  for (const auto& [id, running] : Processes()) {
    if (running == program) ids.push_back(id);
  }
  return ids;
}

ProcessId Stage::AnyProcessOf(const fs::path& program) const {
  std::vector<ProcessId> found;
  WaitFor([&] { return !(found = ProcessesOf(program)).empty(); }, kPatience);
  return found.empty() ? -1 : found.front();
}

std::vector<std::string> Stage::WrongProcesses() const {
  std::vector<std::string> wrong;
  const auto look = [&] {
    wrong.clear();
    std::map<fs::path, int> counts{{Host(), -1}, {Agent(), -1}, {guard_, -1}};
    for (const std::string& id : plugins_) counts[Plugin(id)] = -1;
    for (const auto& [id, program] : Processes()) ++counts[program];
    for (const auto& [program, count] : counts) {
      if (count != 0) wrong.push_back(program.string() + (count < 0 ? " does not run" : " runs too often"));
    }
    return wrong.empty();
  };
  WaitFor(look, kPatience / 2);
  return wrong;
}

std::size_t Stage::ProcessesThatStay() const {
  WaitFor([this] { return Processes().empty(); }, kPatience / 2);
  const auto left = Processes();
  for (const auto& [id, program] : left) std::printf("process %ld of %s stays\n", id, program.c_str());
  return left.size();
}

std::size_t Stage::FilesThatStay() const {
  std::vector<std::string> files;
  const auto look = [&] {
    files.clear();
    for (const auto& entry : fs::recursive_directory_iterator(path() / "run")) {
      if (!entry.is_directory()) files.push_back(entry.path().string());
    }
    return files.empty();
  };
  WaitFor(look);
  for (const std::string& file : files) std::printf("%s stays\n", file.c_str());
  return files.size();
}

void Stage::ShowLogs() const {
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(path() / "TolmAgent" / "log", none)) {
    ShowEnd(entry.path().filename().string(), ReadAll(entry.path()));
  }
  if (host_) ShowEnd("the host printed", host_->Output());
}

}  // namespace trust::death
