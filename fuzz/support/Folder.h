#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace fuzz {

/// A folder of the target's own below TMPDIR, for parsers that read files; gone with the process, unless that
/// crashes.
class Folder {
 public:
  Folder() : path_(std::filesystem::temp_directory_path() / "tolm-fuzz-XXXXXX") {
    std::string name = path_.string();
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path Write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / name, std::ios::binary | std::ios::trunc) << text;
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};

/// The one of this process.
inline const Folder& OwnFolder() {
  static const Folder folder;
  return folder;
}

}  // namespace fuzz
