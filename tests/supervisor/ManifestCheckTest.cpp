#include "ManifestCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/TempDirectory.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class Check : public testing::Test {
 protected:
  fs::path plugins() const { return directory_.path() / "plugins"; }
  void Write(const fs::path& file, const std::string& text, bool executable = false) const {
    fs::create_directories((plugins() / file).parent_path());
    std::ofstream(plugins() / file, std::ios::binary) << text;
    if (executable) fs::permissions(plugins() / file, fs::perms::owner_exec, fs::perm_options::add);
  }
  void AddGood(const std::string& id) const {
    Write(fs::path(id) / "plugin.json", R"({"program": "run"})");
    Write(fs::path(id) / "run", "#!/bin/sh\n", true);
  }
  bool Run(const fs::path& folder) {
    std::ostringstream out;
    const bool good = CheckManifests(folder, out);
    said_ = out.str();
    return good;
  }
  bool Run() { return Run(plugins()); }

  const tolm::test::TempDirectory directory_;
  std::string said_;
};

TEST_F(Check, GoodManifestsAreCounted) {
  AddGood("clock");
  AddGood("relay");
  EXPECT_TRUE(Run()) << said_;
  EXPECT_EQ(said_, "2 manifests below " + plugins().string() + ", 0 faults\n");
}

TEST_F(Check, AFolderWithoutManifestsIsNoFaultButAMissingOneIs) {
  fs::create_directories(plugins() / "empty");
  EXPECT_TRUE(Run());
  EXPECT_EQ(said_, "0 manifests below " + plugins().string() + ", 0 faults\n");
  EXPECT_FALSE(Run(plugins() / "missing"));
  EXPECT_THAT(said_, HasSubstr("missing: cannot be read: No such file or directory"));
}

TEST_F(Check, EveryFaultOfEveryManifestHasItsLine) {
  AddGood("clock");
  AddGood("relay");
  AddGood("shop");
  Write("clock/plugin.json", "{\n  \"program\": \"run\",\n  \"restart\": {\n    \"factor\": 0\n  }\n}\n");
  Write("shop/plugin.json", "{");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_,
              HasSubstr("plugins/clock/plugin.json:4:15: restart.factor: must be a number from 1 to 100\n"));
  EXPECT_THAT(said_, HasSubstr("plugins/shop/plugin.json:1:2: "));
  EXPECT_THAT(said_, HasSubstr("3 manifests below " + plugins().string() + ", 2 faults\n"));
}

TEST_F(Check, ProgramsThatCannotRunAreFaults) {
  AddGood("missing");
  fs::remove(plugins() / "missing" / "run");
  AddGood("plain");
  fs::permissions(plugins() / "plain" / "run", fs::perms::owner_read);
  AddGood("folder");
  fs::remove(plugins() / "folder" / "run");
  fs::create_directories(plugins() / "folder" / "run");
  AddGood("foreign");
  std::string header(64, '\0');
  header.replace(0, 6,
                 "\x7f"
                 "ELF\x02\x01");
  header[18] = '\x2a';  // no machine of ours
  Write("foreign/run", header, true);
  AddGood("script");
  Write("script/run", "#!/no/such/shell\n", true);
  EXPECT_FALSE(Run());
  for (const char* const fault :
       {"missing/plugin.json:1:13: program: ", "missing/run: it does not exist\n",
        "plain/run: it is not executable\n", "folder/run: it is a directory\n",
        "foreign/run: it is made for another machine (number 42)\n",
        "script/run: its interpreter /no/such/shell is missing\n", ", 5 faults\n"}) {
    EXPECT_THAT(said_, HasSubstr(fault));
  }
}

TEST_F(Check, AProgramOfAnotherSystemIsAFault) {
  AddGood("clock");
  Write("clock/run", "MZ" + std::string(126, '\0'), true);
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr("clock/run: it is made for another system (Windows)\n"));
}

TEST_F(Check, ProgramsOfThisMachineCanRun) {
  AddGood("clock");
  fs::remove(plugins() / "clock" / "run");
  fs::copy_file("/proc/self/exe", plugins() / "clock" / "run");
  EXPECT_TRUE(Run()) << said_;
}

TEST_F(Check, AMissingWorkingFolderIsAFault) {
  AddGood("clock");
  Write("clock/plugin.json", "{\"program\": \"run\",\n\"workingFolder\": \"data\"}");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr("clock/plugin.json:2:18: workingFolder: "));
  fs::create_directories(plugins() / "clock" / "data");
  EXPECT_TRUE(Run()) << said_;
}

TEST_F(Check, TwoFoldersThatClaimOneIdAreAFault) {
  AddGood("clock");
  AddGood("other/Clock");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr("other/Clock/plugin.json: id: \"Clock\" is claimed by "));
  EXPECT_THAT(said_, HasSubstr("plugins/clock/plugin.json as well\n"));
  EXPECT_THAT(said_, HasSubstr(", 1 fault\n"));
}

TEST_F(Check, AClaimCountsAlsoWhereItIsNotTheFoldersName) {
  AddGood("clock");
  AddGood("watch");
  Write("watch/plugin.json", R"({"program": "run", "id": "clock"})");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr("watch/plugin.json:1:26: id: must be the folder's name, \"watch\"\n"));
  EXPECT_THAT(said_, HasSubstr("watch/plugin.json: id: \"clock\" is claimed by "));
}

TEST_F(Check, OnePluginsOwnFolderCanBeChecked) {
  AddGood("clock");
  for (const fs::path& folder : {plugins() / "clock", plugins() / "clock" / "", plugins() / "clock" / "."}) {
    EXPECT_TRUE(Run(folder)) << said_;
    EXPECT_THAT(said_, HasSubstr("1 manifest below "));
  }
}

}  // namespace
}  // namespace guard
