#include "ManifestCheck.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <system_error>
#include <vector>

#include "ManifestReader.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFolderDepth = 8;

std::string ReadBytes(std::ifstream& file, std::streamoff offset, std::streamsize count) {
  std::string bytes(static_cast<std::size_t>(count), '\0');
  file.clear();
  file.seekg(offset);
  file.read(bytes.data(), count);
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

/// The bytes of an executable's header that say what it runs on; empty for a format that is not known.
std::string MachineOf(std::ifstream& file) {
  const std::string begin = ReadBytes(file, 0, 64);
  if (begin.starts_with("\x7f"
                        "ELF") &&
      begin.size() >= 20) {
    return "ELF" + begin.substr(4, 2) + begin.substr(18, 2);  // class and byte order, machine
  }
  if (begin.starts_with("MZ") && begin.size() == 64) {
    std::streamoff header = 0;
    for (std::size_t i = 64; i-- > 60;) header = header * 256 + static_cast<unsigned char>(begin[i]);
    const std::string signature = ReadBytes(file, header, 6);
    if (signature.starts_with(std::string_view("PE\0\0", 4)) && signature.size() == 6) {
      return "PE" + signature.substr(4, 2);
    }
  }
  return {};
}

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

std::string WhyNotRunnable(const fs::path& program, const fs::path& reference) {
  std::error_code error;
  const fs::file_status status = fs::status(program, error);
  if (status.type() == fs::file_type::not_found) return program.string() + " does not exist";
  if (status.type() != fs::file_type::regular) {
    return program.string() + (error ? " cannot be looked at: " + error.message() : " is not a file");
  }
  constexpr fs::perms kExecutable = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
  if ((status.permissions() & kExecutable) == fs::perms::none) return program.string() + " is not executable";
  std::ifstream file(program, std::ios::binary);
  std::ifstream reference_file(reference, std::ios::binary);
  const std::string machine = MachineOf(file);
  const std::string here = MachineOf(reference_file);
  if (!machine.empty() && !here.empty() && machine != here) {
    return program.string() + " is made for another kind of machine";
  }
  return {};
}

bool CheckManifests(const fs::path& folder, const fs::path& reference, std::ostream& out) {
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
    const std::string why = WhyNotRunnable(reading.manifest->program, reference);
    if (!why.empty()) say(Describe(file, {reading.program_position, "program", why}));
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
