#include "AgentLog.h"

#include <string>

#include "Layout.h"
#include "os/PrivateFiles.h"
#include "os/Utf8Path.h"

namespace tolm::agent {
namespace {

bool LogInto(const std::string& path) {
  if (path.empty()) return false;
  os::MakePrivateFolders(os::Utf8Path(path).parent_path());
  constexpr std::size_t kBytes = 1024 * 1024;
  constexpr std::size_t kOldFiles = 3;
  return Tolm::Base::SetLogFile(path, kBytes, kOldFiles, Tolm::Base::kLogLevelInfo);
}

}  // namespace

void OpenLog(const Layout& layout) {
  if (LogInto(layout.log_path)) return;
  if (LogInto(layout.user_log_path)) {
    AGENT_LOG_WARNING("%s cannot be written; this file is used", layout.log_path.c_str());
    return;
  }
  AGENT_LOG_ERROR("Neither %s nor %s can be written", layout.log_path.c_str(), layout.user_log_path.c_str());
}

}  // namespace tolm::agent
