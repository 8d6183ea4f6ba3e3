#include "Stage.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace tour {
namespace {

namespace fs = std::filesystem;

constexpr char kAgent[] = "TolmAgent/TolmAgent/TolmAgent_Exe64.exe";
constexpr char kGuard[] = "TolmAgent/TolmGuard/TolmGuard.exe";

fs::path ThisProgram() {
  return fs::read_symlink("/proc/self/exe");
}

void Place(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  fs::copy_file(from, to);
}

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

/// One that is free at the moment; the frame chooses another when it is taken by then.
int FreePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  ::close(probe);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

void BuildIn(const fs::path& folder) {
  const fs::path built = ThisProgram().parent_path();
  Place(ThisProgram(), folder / "frame_tour");
  Place(built / kAgent, folder / kAgent);
  Place(built / kGuard, folder / kGuard);
  for (const std::string id : {"kitchen", "waiter"}) {
    const fs::path plugin = folder / "plugins" / id;
    Place(built / ("tour_" + id), plugin / ("tour_" + id));
    Write(plugin / "plugin.json", "{\n  \"program\": \"tour_" + id + "\"\n}\n");
  }
  Write(folder / "LpcFrame.xml",
        "<Config>\n  <ClientPort>" + std::to_string(FreePort()) + "</ClientPort>\n</Config>\n");
  fs::create_directory(folder / "run");
  fs::permissions(folder / "run", fs::perms::owner_all);
}

}  // namespace

void Stage::BuildAndEnter(const std::vector<std::string>& arguments) {
  std::error_code error;
  const fs::path temporary = fs::temp_directory_path(error);
  const char* const chosen = std::getenv("TMPDIR");
  if (error)
    throw std::runtime_error(std::string("no temporary directory ") + (chosen != nullptr ? chosen : ""));
  std::string folder = (temporary / "tolm-tour-XXXXXX").string();
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("cannot make " + folder);
  try {
    BuildIn(folder);
    const std::string program = folder + "/frame_tour";
    std::vector<std::string> words{program, "--folder", folder};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    ::setenv("XDG_RUNTIME_DIR", (folder + "/run").c_str(), 1);
    ::execv(program.c_str(), argv.data());
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(errno));
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    throw;
  }
}

Stage::~Stage() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::map<pid_t, std::string> Stage::Processes() const {
  std::map<pid_t, std::string> processes;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename();
    pid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size() || id == ::getpid()) continue;
    const fs::path program = fs::read_symlink(entry.path() / "exe", gone);
    if (gone || program.lexically_relative(folder_).string().starts_with("..")) continue;
    processes[id] = program.filename();
  }
  return processes;
}

pid_t Stage::ProcessOf(const std::string& program) const {
  pid_t found = 0;
  for (const auto& [id, name] : Processes()) {
    if (name != program) continue;
    if (found != 0) return 0;
    found = id;
  }
  return found;
}

std::vector<std::string> Stage::RuntimeFiles() const {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder_ / "run")) {
    if (!entry.is_directory()) files.push_back(entry.path());
  }
  return files;
}

}  // namespace tour
