#include "ManifestCheck.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <system_error>
#include <vector>

#include "ManifestReader.h"
#include "os/ExecutableFault.h"
#include "os/UserPlaces.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFolderDepth = 8;

std::string LowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

/// `folder` in a form whose last part is its name.
fs::path Named(const fs::path& folder) {
  const auto tidy = [](const fs::path& path) {
    const fs::path normal = path.lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
  };
  const fs::path named = tidy(folder);
  return named.filename() == "." || named.filename() == ".." ? tidy(fs::absolute(folder)) : named;
}

/// The folders below `folder`, itself included, that hold a manifest, in the order of their names.
std::vector<fs::path> FindManifests(const fs::path& folder, std::error_code& error) {
  std::vector<fs::path> folders;
  std::error_code ignored;
  if (fs::exists(folder / kManifestFileName, ignored)) folders.push_back(folder);
  fs::recursive_directory_iterator entry(folder, error);
  while (!error && entry != fs::recursive_directory_iterator()) {
    if (entry->is_directory(ignored)) {
      if (static_cast<std::size_t>(entry.depth()) + 1 >= kMaxFolderDepth) entry.disable_recursion_pending();
      if (fs::exists(entry->path() / kManifestFileName, ignored)) folders.push_back(entry->path());
    }
    entry.increment(error);
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

}  // namespace

bool CheckManifests(const fs::path& folder, std::ostream& out) {
  std::error_code error;
  const std::vector<fs::path> folders = FindManifests(Named(folder), error);
  std::size_t faults = 0;
  const auto say = [&](const std::string& line) {
    ++faults;
    out << line << '\n';
  };
  if (error) say(folder.string() + ": cannot be read: " + error.message());

  std::map<std::string, fs::path> claimed;  // some file systems do not tell upper from lower case
  for (const fs::path& one : folders) {
    const fs::path file = one / kManifestFileName;
    const ManifestReading reading = ReadManifest(one);
    for (const ManifestFault& fault : reading.faults) say(Describe(file, fault));
    const auto [first, is_first] = claimed.emplace(LowerCase(reading.claimed_id), file);
    if (!is_first) {
      say(Describe(
          file,
          {{}, "id", "\"" + reading.claimed_id + "\" is claimed by " + first->second.string() + " as well"}));
    }
    if (!reading.manifest) continue;
    const std::string program = os::ProgramFile(reading.manifest->program.string());
    const std::string why = os::ExecutableFault(program);
    if (!why.empty()) say(Describe(file, {reading.program_position, "program", program + ": " + why}));
    if (!fs::is_directory(reading.manifest->working_folder, error)) {
      say(Describe(file, {reading.working_folder_position, "workingFolder",
                          reading.manifest->working_folder.string() + " is not a folder"}));
    }
  }
  out << folders.size() << (folders.size() == 1 ? " manifest" : " manifests") << " below " << folder.string()
      << ", " << faults << (faults == 1 ? " fault" : " faults") << '\n';
  return faults == 0;
}

}  // namespace guard
