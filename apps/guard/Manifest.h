#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "RestartPolicy.h"

namespace guard {

inline constexpr char kManifestFileName[] = "plugin.json";

struct LogRules {
  std::size_t max_bytes = 1048576;  ///< of one file
  int files = 3;                    ///< the current one and those before it

  bool operator==(const LogRules&) const = default;
};

/// How one plugin is run: its plugin.json, with all paths absolute. docs/plugin-manifest.schema.json has
/// the file's format.
struct Manifest {
  std::string id;
  std::filesystem::path program;
  std::vector<std::string> arguments;
  std::filesystem::path working_folder;
  std::map<std::string, std::string> environment;
  std::string description;
  Milliseconds stop_grace{2000};
  RestartRules restart;
  LogRules log;
};

/// Why `id` cannot be a plugin's id, for people; empty when it can. Ids become folder and file names.
std::string WhyNotAPluginId(const std::string& id);

}  // namespace guard
