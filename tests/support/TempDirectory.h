#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "support/System.h"
#include "support/TestLogs.h"
#include "support/Wait.h"

namespace tolm::test {

/// A fresh directory of the test's own, removed with everything in it at the end.
class TempDirectory {
 public:
  TempDirectory() : path_(MakeTempFolder()) {}
  ~TempDirectory() {
    KeepLogsBelow(path_);
    // Some systems hold a program's file for a moment after its process has ended.
    WaitFor([this] {
      std::error_code held;
      std::filesystem::remove_all(path_, held);
      return !held;
    });
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_;
};

/// While it lives, an environment variable has another value, or none. The environment belongs to the
/// whole process: to be made before threads begin, and to go when they have ended.
class EnvironmentValue {
 public:
  EnvironmentValue(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* before = std::getenv(name)) before_ = before;
    SetVariable(name_, value);
  }
  ~EnvironmentValue() { SetVariable(name_, before_); }
  EnvironmentValue(const EnvironmentValue&) = delete;
  EnvironmentValue& operator=(const EnvironmentValue&) = delete;

 private:
  const char* const name_;
  std::optional<std::string> before_;
};

/// Endpoints of this process, and of those that it starts, lie in a directory of the test's own.
class RuntimeDirectory {
 public:
  RuntimeDirectory() : variable_("XDG_RUNTIME_DIR", directory_.path().string()) {}
  const std::filesystem::path& path() const { return directory_.path(); }
  std::filesystem::path endpoints() const { return path() / "tolm-lpc"; }

 private:
  const TempDirectory directory_;
  const EnvironmentValue variable_;
};

}  // namespace tolm::test
