#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Manifest.h"
#include "PositionedJson.h"

namespace guard {

/// What is wrong with a manifest, and where.
struct ManifestFault {
  Position position;  ///< line 0: with the file as a whole
  std::string key;    ///< "restart.factor", "arguments[2]"; empty for the document itself
  std::string what;   ///< "must be a number from 1 to 100"

  bool operator==(const ManifestFault&) const = default;
};

/// "plugins/clock/plugin.json:7:15: restart.factor: must be a number from 1 to 100".
std::string Describe(const std::filesystem::path& file, const ManifestFault& fault);

struct ManifestReading {
  std::optional<Manifest> manifest;  ///< when there are no faults
  std::vector<ManifestFault>
      faults;  ///< all that were found, in the order of the file where they have a place
  bool file_exists = true;
  std::string claimed_id;  ///< the member "id" where it is a text, else the folder's name
  Position program_position;
  Position working_folder_position;
};

/// Reads the plugin.json in `folder`, whose name is the plugin's id. Paths in it are relative to `folder`.
/// Does not look whether the program exists.
ManifestReading ReadManifest(const std::filesystem::path& folder);

}  // namespace guard
