#pragma once

#include <optional>
#include <string>
#include <vector>

namespace os {

struct CommandToken {
  std::string text;
  bool quoted = false;  ///< began with a double quote
};

/// SplitCommandLine, with the quotes told.
std::vector<CommandToken> SplitCommandTokens(const std::string& command_line);

/// The path P of `wmic process where ExecutablePath="P" delete`, its backslashes no longer doubled;
/// nothing when `command` is anything else.
std::optional<std::string> ParseRemovalCommand(const std::string& command);

}  // namespace os
