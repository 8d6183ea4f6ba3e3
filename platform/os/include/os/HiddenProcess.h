#pragma once

#include <string>
#include <vector>

namespace os {

struct StartedProcess {
  bool started = false;
  long process_id = 0;
  int error = 0;  ///< the system's code when it was not started
};

/// Starts the program that the first token of `command_line` names, without a window or terminal and
/// without inheriting anything but environment and current directory. It lives on its own: nobody has to
/// wait for it, and it does not end with the caller. The command line is split as SplitCommandLine says;
/// on systems whose paths have slashes, backslashes in the tokens that name paths (all that stand in
/// double quotes) become slashes. Returns when the program runs or could not be started.
StartedProcess StartHidden(const std::string& command_line);

/// Splits as the C runtime of Windows does: at blanks and tabs outside of double quotes; 2n backslashes
/// before a quote are n backslashes, 2n+1 are n and a literal quote; in the first token backslashes are
/// never special; "" inside quotes is a literal quote.
std::vector<std::string> SplitCommandLine(const std::string& command_line);

/// The opposite: quotes what needs it, so that SplitCommandLine gives `arguments` again.
std::string JoinCommandLine(const std::vector<std::string>& arguments);

/// Carries out `wmic process where ExecutablePath="P" delete`, P with doubled backslashes: ends at once
/// every process of this user, but the calling one, whose executable is P. On systems without that command
/// the same is done with what they have, backslashes read as slashes. The outcome is not told; the caller
/// does not wait for the processes' end. Any other command does nothing.
void RunRemovalCommand(const std::string& command);

}  // namespace os
