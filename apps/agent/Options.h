#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tolm::agent {

/// Times that the agent waits.
struct Times {
  std::chrono::milliseconds grace{3500};          ///< for the guard, between the request to end and its kill
  std::chrono::milliseconds host_gone{10000};     ///< for the host to come back
  std::chrono::milliseconds host_interval{1000};  ///< between two looks for the host
  std::chrono::milliseconds restart{100};         ///< before the first restart of the guard
  std::chrono::milliseconds longest_restart{5000};
  std::chrono::milliseconds stable{30000};  ///< a guard that ran as long is restarted quickly again
};

struct Options {
  std::string agent_path;  ///< as the agent was called
  std::string host_path;   ///< the main process; may be empty
  std::string role;
  Times times;
};

enum class Order { kRun, kShowHelp, kShowVersion, kRefuse };

/// What the command line asks for: "<agent> [times] <main process path> <role> -process". `fault` tells
/// what is wrong with one that is refused.
Order ReadCommandLine(const std::vector<std::string>& command_line, Options& options, std::string& fault);

/// What --help shows, and how the program is called.
std::string HelpText();
std::string UsageLine();

}  // namespace tolm::agent
