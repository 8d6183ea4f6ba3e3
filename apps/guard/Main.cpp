// TolmGuard: starts the plugin processes of a host, keeps them alive and stops them, as its frame says.

#include <cstdio>
#include <exception>
#include <iostream>
#include <random>
#include <system_error>

#include "Children.h"
#include "EventLoop.h"
#include "FrameLink.h"
#include "ManifestCheck.h"
#include "Options.h"
#include "Supervisor.h"
#include "TolmBase/LogLine.h"
#include "common/AgentNames.h"
#include "os/ExecutablePath.h"
#include "os/PrivateFiles.h"
#include "os/StopSignal.h"
#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr int kExitFailed = 1;
constexpr int kExitRunsAlready = 3;

constexpr char kTag[] = "TolmGuard";
constexpr std::size_t kLogFileBytes = 1048576;
constexpr std::size_t kOldLogFiles = 2;

/// Begins the guard's log in the first folder that can be written to; gives that, or the first one.
fs::path OpenLog(const std::vector<fs::path>& folders) {
  for (const fs::path& folder : folders) {
    os::MakePrivateFolders(folder);
    if (Tolm::Base::SetLogFile((folder / "guard.log").string(), kLogFileBytes, kOldLogFiles,
                               Tolm::Base::kLogLevelInfo)) {
      return folder;
    }
  }
  TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "no log can be written in %s", folders.front().string().c_str());
  return folders.front();
}

int Check(const Options& options, const Places& places) {
  const fs::path& folder = options.check_folder.empty() ? places.plugins : options.check_folder;
  return CheckManifests(folder, std::cout) ? 0 : kExitFailed;
}

int Supervise(const Options& options, const Places& places) {
  std::string why;
  const auto lock = os::ProcessLock::TryTake(TolmLPCFrame::GuardLockName(places.config), why);
  if (!lock) {
    std::fprintf(stderr, "TolmGuard: %s%s\n",
                 why.empty() ? "a guard runs already for " : (why + "; cannot guard ").c_str(),
                 places.config.string().c_str());
    return why.empty() ? kExitRunsAlready : kExitFailed;
  }
  const fs::path logs = OpenLog(places.logs);
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "TolmGuard %s: configuration %s, plugins in %s, logs in %s",
           TOLM_GUARD_VERSION, places.config.string().c_str(), places.plugins.string().c_str(),
           logs.string().c_str());
  os::AdoptOrphans();
  // Both last as long as the process, as the thread does that signals arrive on. Tasks run only while there
  // is a supervisor.
  static EventLoop& loop = *new EventLoop;
  static Supervisor* supervisor = nullptr;
  os::OnStopSignal([] { loop.Post([] { supervisor->Shutdown([] { loop.Stop(); }); }); });
  Children children;
  FrameLink link(
      {.config = places.config, .role = options.role},
      {.on_connected = [] { loop.Post([] { supervisor->OnFrameConnected(); }); },
       .on_text =
           [](std::string text) { loop.Post([text = std::move(text)] { supervisor->OnFrameText(text); }); },
       .on_lost = [] { loop.Post([] { supervisor->OnFrameLost(); }); }});
  std::mt19937_64 engine(std::random_device{}());
  Supervisor the_supervisor(
      {.plugins = places.plugins,
       .plugins_may_move = places.plugins_may_move,
       .logs = logs,
       .lost_grace = options.lost_grace},
      loop, link,
      [&](os::ProcessRequest request, std::string& reason) {
        return children.Start(std::move(request), reason);
      },
      [&] { return std::uniform_real_distribution<double>(0.0, 1.0)(engine); });
  supervisor = &the_supervisor;
  link.Start();
  loop.Run();
  link.Stop();
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "TolmGuard ends");
  return 0;
}

}  // namespace
}  // namespace guard

int main(int argc, char** argv) {
  try {
    guard::Options options;
    if (const auto status = guard::ReadOptions(os::OwnArguments(argc, argv), options)) return *status;
    const std::filesystem::path own_folder = os::Utf8Path(os::ExecutableDirectory());
    const guard::Places places = guard::FindPlaces(options, own_folder);
    if (options.check) return guard::Check(options, places);
    return guard::Supervise(options, places);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "TolmGuard: %s\n", error.what());
    return guard::kExitFailed;
  }
}
