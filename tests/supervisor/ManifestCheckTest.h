#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "ManifestCheck.h"
#include "support/System.h"
#include "support/TempDirectory.h"

namespace guard::test {

/// A folder of plugins, and what is said of it.
class Check : public testing::Test {
 protected:
  std::filesystem::path plugins() const { return directory_.path() / "plugins"; }
  /// What stands in front of a fault.
  std::string Manifest(const std::string& id) const { return (plugins() / id / "plugin.json").string(); }
  /// What stands in front of a fault of a program.
  std::string Program(const std::string& id) const { return (plugins() / id / "run").string(); }

  void Write(const std::filesystem::path& file, const std::string& text, bool executable = false) const {
    namespace fs = std::filesystem;
    fs::create_directories((plugins() / file).parent_path());
    std::ofstream(plugins() / file, std::ios::binary) << text;
    if (executable) fs::permissions(plugins() / file, fs::perms::owner_exec, fs::perm_options::add);
  }
  void AddGood(const std::string& id) const {
    Write(std::filesystem::path(id) / "plugin.json", R"({"program": "run"})");
    std::filesystem::copy_file(TEST_STAND_IN, plugins() / id / "run");
  }
  bool Run(const std::filesystem::path& folder) {
    std::ostringstream out;
    const bool good = CheckManifests(folder, out);
    said_ = out.str();
    return good;
  }
  bool Run() { return Run(plugins()); }

  const tolm::test::TempDirectory directory_;
  std::string said_;
};

}  // namespace guard::test
