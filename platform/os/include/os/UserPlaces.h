#pragma once

// What a program learns from its user's surroundings, in UTF-8 on every system.

#include <string>
#include <vector>

namespace os {

/// The words that this program was started with, its own name first. `argc` and `argv` are main's, and count
/// only where the system gives them in UTF-8.
std::vector<std::string> OwnArguments(int argc, const char* const* argv);

/// The folder in which programs keep what they note for the user, each below a folder of its own:
/// $XDG_STATE_HOME or ~/.local/state, on Windows %LOCALAPPDATA%. Empty when the environment names none, or
/// only a relative one.
std::string UserStateFolder();

/// The file that `program` means: on systems whose programs' names have an ending (".exe"), the one with
/// the ending when there is no file of the name without it; otherwise `program` itself.
std::string ProgramFile(const std::string& program);

}  // namespace os
