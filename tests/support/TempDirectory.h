#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tolm::test {

/// A fresh directory of the test's own, removed with everything in it at the end.
class TempDirectory {
 public:
  TempDirectory() {
    std::string path = (std::filesystem::temp_directory_path() / "tolm-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make " + path);
    path_ = path;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// While it lives, an environment variable has another value, or none. The environment belongs to the
/// whole process: to be made before threads begin, and to go when they have ended.
class EnvironmentValue {
 public:
  EnvironmentValue(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* before = std::getenv(name)) before_ = before;
    Set(value);
  }
  ~EnvironmentValue() { Set(before_); }
  EnvironmentValue(const EnvironmentValue&) = delete;
  EnvironmentValue& operator=(const EnvironmentValue&) = delete;

 private:
  void Set(const std::optional<std::string>& value) {
    if (value) {
      ::setenv(name_, value->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

  const char* const name_;
  std::optional<std::string> before_;
};

/// Endpoints of this process, and of those that it starts, lie in a directory of the test's own.
class RuntimeDirectory {
 public:
  const std::filesystem::path& path() const { return directory_.path(); }
  std::filesystem::path endpoints() const { return path() / "tolm-lpc"; }

 private:
  const TempDirectory directory_;
  const EnvironmentValue variable_{"XDG_RUNTIME_DIR", directory_.path().string()};
};

}  // namespace tolm::test
