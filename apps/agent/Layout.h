#pragma once

#include <string>

namespace tolm::agent {

/// Where things lie around an agent that was called as `agent_path`.
struct Layout {
  std::string event_name;
  std::string guard_path;
  std::string log_path;       ///< below the host's folder
  std::string user_log_path;  ///< where the host's folder may not be written; empty when there is none
};

Layout FindLayout(const std::string& agent_path);

/// The path that the system shows for a process that runs `path`: symbolic links resolved. Empty when
/// there is no such file.
std::string ResolvedExecutable(const std::string& path);

}  // namespace tolm::agent
