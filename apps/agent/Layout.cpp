#include "Layout.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "common/AgentNames.h"
#include "os/ExecutablePath.h"
#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace tolm::agent {
namespace {

namespace fs = std::filesystem;

std::string UserLogPath() {
  const fs::path state = os::Utf8Path(os::UserStateFolder());
  return state.empty() ? std::string() : (state / "tolm-agent" / "agent.log").string();
}

}  // namespace

Layout FindLayout(const std::string& agent_path) {
  Layout layout;
  // The frame makes the name from the path with backslashes that it was given.
  std::string frame_path = agent_path;
  std::replace(frame_path.begin(), frame_path.end(), '/', '\\');
  layout.event_name = TolmLPCFrame::AgentEventName(frame_path);

  fs::path folder = os::Utf8Path(agent_path).parent_path();
  // Called by its name alone: found by whoever started it, in a folder that only the system tells.
  if (folder.empty()) folder = os::Utf8Path(os::ExecutableDirectory());
  std::error_code error;
  const fs::path whole = fs::absolute(folder, error);
  // Without a ".." in it, so that a process list shows the guard by its usual path.
  const fs::path above = ((error ? folder : whole) / "..").lexically_normal();
  layout.guard_path = (above / "TolmGuard" / "TolmGuard.exe").lexically_normal().string();
  layout.log_path = (above / "log" / "agent.log").lexically_normal().string();
  layout.user_log_path = UserLogPath();
  return layout;
}

std::string ResolvedExecutable(const std::string& path) {
  if (path.empty()) return {};
  std::error_code error;
  const fs::path resolved = fs::canonical(os::Utf8Path(path), error);
  return error ? std::string() : resolved.string();
}

}  // namespace tolm::agent
