#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ConfigPort.h"
#include "Scheduler.h"

namespace guard {

/// What the command line says; paths as they stand there, empty where it says nothing.
struct Options {
  std::filesystem::path config;
  Role role = Role::kClient;
  std::filesystem::path host;
  std::filesystem::path plugins;
  std::filesystem::path logs;
  Milliseconds lost_grace{10000};
  bool check = false;
  std::filesystem::path check_folder;
};

/// Where everything lies; absolute paths.
struct Places {
  std::filesystem::path config;
  std::filesystem::path plugins;
  bool plugins_may_move = false;            ///< to where the frame's main process is
  std::vector<std::filesystem::path> logs;  ///< the first one that can be written to counts
};

/// Reads the command line, the program's own name first. When the process is to end at once (--help,
/// --version, or a mistake, which is
/// explained on stderr), gives the exit status.
std::optional<int> ReadOptions(const std::vector<std::string>& command_line, Options& options);

/// Fills in what the options leave open, from the folder that the guard's own program lies in.
Places FindPlaces(const Options& options, const std::filesystem::path& own_folder);

}  // namespace guard
