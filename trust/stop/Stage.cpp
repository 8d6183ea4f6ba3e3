#include "Stage.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string_view>

#include "TolmLPCFrameDiagnostics.h"
#include "TolmLPCServer/LpcServer.h"
#include "common/AgentNames.h"
#include "support/Figures.h"
#include "support/TempDirectory.h"

namespace trust {
namespace {

namespace fs = std::filesystem;

std::string host_folder;

std::int64_t Now() {
  return std::chrono::steady_clock::now().time_since_epoch().count();
}

/// In the order in which they have to be made.
struct Folders {
  tolm::test::RuntimeDirectory runtime;
  tolm::test::TempDirectory host;
};
std::unique_ptr<Folders> folders;

}  // namespace

// The frame's question for its host's folder, led past here by the linker: programs of other checks lie
// beside this one.
std::string FolderOfHost() asm("__wrap__ZN4Tolm4Base8FileUtil12GetCurExeDirB5cxx11Ev");
std::string FolderOfHost() {
  return host_folder;
}

Stage::Stage() {
  folders = std::make_unique<Folders>();
  host_folder = folders->host.path().string() + "/";
  std::ofstream(host_folder + "LpcFrame.xml")
      << "<Config>\n<ServerPort>" << tolm::test::FreePort() << "</ServerPort>\n<ClientPort>"
      << tolm::test::FreePort() << "</ClientPort>\n</Config>\n";
  lpc::Options options;
  options.stop_wait_ms /= kTimesShorter;
  lpcserver::SetOptions(options);
  // What is refused, lost or late here is so on purpose.
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
}

Stage::~Stage() {
  folders.reset();
}

TolmLPCFrame::PlatformInfo Listed(int plugins, int frame_type) {
  TolmLPCFrame::PlatformInfo info;
  info.frame_full_path = host_folder + "host";
  info.frame_type = frame_type;
  for (int i = 0; i < plugins; ++i) {
    const std::string id = "p" + std::to_string(i);
    info.plugin_map[id].plugin_id = id;
  }
  info.plugin_map["mute"].plugin_id = "mute";
  return info;
}

std::string AgentPath() {
  std::string folder = host_folder;
  std::replace(folder.begin(), folder.end(), '/', '\\');
  return folder + TolmLPCFrame::kAgentRelativePath;
}

std::optional<std::uint16_t> GuardPort(int frame_type) {
  std::ifstream file(host_folder + "LpcFrame.xml");
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  std::smatch found;
  const std::regex wanted(frame_type == 1 ? "<ClientPort>(\\d+)<" : "<ServerPort>(\\d+)<");
  if (!std::regex_search(all, found, wanted)) return std::nullopt;
  const int port = std::stoi(found[1]);
  return port > 0 && port < 65536 ? std::optional(static_cast<std::uint16_t>(port)) : std::nullopt;
}

Watchdog::Watchdog(std::string figure, std::chrono::seconds limit)
    : figure_(std::move(figure)), limit_(limit), since_(Now()), thread_([this](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
          LetPass(std::chrono::milliseconds(20));
          const auto spent = std::chrono::steady_clock::duration(Now() - since_.load());
          if (spent < limit_) continue;
          std::printf("stands still in %s of %ld\n", what_.load(), number_.load());
          PrintFigure(figure_, 1, "calls", Bound::kExactly, 0);
          std::_Exit(1);
        }
      }) {}

Watchdog::~Watchdog() {
  thread_.request_stop();
}

void Watchdog::Look(const char* what, long number) {
  what_ = what;
  number_ = number;
  since_ = Now();
}

long Argument(int argc, char** argv, const char* name, long otherwise) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string_view(argv[i]) == name) return std::strtol(argv[i + 1], nullptr, 10);
  }
  return otherwise;
}

double MillisecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

bool IsPatient(int argc, char** argv) {
  return std::any_of(argv, argv + argc,
                     [](const char* word) { return std::string_view(word) == "--patient"; });
}

double MostMs(double usual, bool patient) {
  constexpr double kHung = 60'000;
  if (patient) return kHung;
  return IsWatched() ? 5 * usual : usual;
}

bool IsWatched() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  return false;
#endif
}

}  // namespace trust
