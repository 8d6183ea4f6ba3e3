#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace tour {

// How the tour goes on as the copy of its program that lies in the host's folder. Twin files: posix/Entry.cpp
// and windows/Entry.cpp.

/// Goes on as `program`, which lies in `folder`, with stdin, stdout and stderr of this process. Where a
/// process cannot become another program it starts it, waits, removes the folder, which nobody can do who
/// runs in it, and gives the exit status; the program ends with this process. Throws std::runtime_error.
int Enter(const std::filesystem::path& folder, const std::filesystem::path& program,
          const std::vector<std::string>& arguments);

/// For the program that was entered: from now on Ctrl-C and a polite request to end call `asked` on a thread
/// of their own, each time. Before other threads start; once in a process.
void OnInterrupt(const std::filesystem::path& folder, std::function<void()> asked);

}  // namespace tour
