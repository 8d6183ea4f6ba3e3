#pragma once

// Where the agent and the guard lie, and what the agent's event is called: agreed on by the frame, the
// agent and the guard, and made with backslashes on every system.

#include <filesystem>
#include <string>

namespace TolmLPCFrame {

/// Below the folder of the host's executable.
inline constexpr char kAgentRelativePath[] = "TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe";
inline constexpr char kGuardRelativePath[] = "TolmAgent\\TolmGuard\\TolmGuard.exe";

/// The roles that an agent can be started in, one for each port element of the configuration file.
inline constexpr char kRoleClient[] = "Client";

/// Resolves ".." segments and drops empty ones, a leading one too; "." stays. Only backslashes separate.
/// False, and `path` is left as it is, when ".." climbs above the first segment or nothing remains.
bool NormalizePath(std::string& path);

/// The name of the event that the agent at `agent_path` holds while it runs, and of its lock.
std::string AgentEventName(const std::string& agent_path);
/// The name of the lock that the guard for the configuration file `config` holds while it runs; the same for
/// every way to write a path.
std::string GuardLockName(const std::filesystem::path& config);

}  // namespace TolmLPCFrame
