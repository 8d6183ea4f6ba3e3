#include "Folder.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include "os/Utf8Path.h"

namespace tolm::test {
namespace {

namespace fs = std::filesystem;

/// A link where the system and the file system allow it: a program's path is what it was started by.
void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  std::error_code other_file_system;
  if (TEST_MAY_LINK) fs::create_hard_link(from, to, other_file_system);
  if (!TEST_MAY_LINK || other_file_system) fs::copy_file(from, to);
}

void Write(const fs::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string InJson(const std::vector<std::string>& texts) {
  std::string json;
  for (const std::string& text : texts) json += (json.empty() ? "\"" : ", \"") + text + "\"";
  return "[" + json + "]";
}

}  // namespace

Folder::Folder() : runtime_("XDG_RUNTIME_DIR", (directory_.path() / "run").string()) {
  const fs::path built = TEST_PROGRAMS;
  Place(ProgramFile(built / "tolm_host"), Host());
  // Where programs look for their libraries in their own folder first.
  if (const fs::path library = TEST_LIBRARY_BESIDE_HOST; !library.empty()) {
    Place(library, path() / library.filename());
  }
  Place(built / "TolmAgent/TolmAgent/TolmAgent_Exe64.exe", Agent());
  Place(built / "TolmAgent/TolmGuard/TolmGuard.exe", Guard());
  fs::create_directory(path() / "run");
  fs::permissions(path() / "run", fs::perms::owner_all);
  Write(Config(), "<Config>\n<ServerPort>" + std::to_string(FreePort()) + "</ServerPort>\n<ClientPort>" +
                      std::to_string(FreePort()) + "</ClientPort>\n</Config>\n");
}

Folder::~Folder() {
  KillProcessesBelow(path());
}

void Folder::AddPlugin(const std::string& id, const std::vector<std::string>& arguments,
                       const std::string& members) const {
  const fs::path folder = path() / "plugins" / os::Utf8Path(id);
  Place(ProgramFile(fs::path(TEST_PROGRAMS) / "guarded_plugin"), Plugin(id));
  Write(folder / "plugin.json", "{\n\"program\": \"guarded_plugin\",\n\"arguments\": " + InJson(arguments) +
                                    (members.empty() ? "" : ",\n" + members) + "\n}\n");
}

int Folder::Port(const std::string& element) const {
  const std::string text = ReadAll(Config());
  const std::size_t begin = text.find("<" + element + ">");
  return begin == std::string::npos ? -1 : std::stoi(text.substr(begin + element.size() + 2));
}

std::vector<ProcessId> Folder::ProcessesOf(const fs::path& program) const {
  std::vector<ProcessId> ids;
  for (const auto& [id, running] : Processes()) {
    if (running == program) ids.push_back(id);
  }
  return ids;
}

std::vector<std::string> Folder::RuntimeFiles() const {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(path() / "run")) {
    if (!entry.is_directory()) files.push_back(entry.path().string());
  }
  return files;
}

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace tolm::test
