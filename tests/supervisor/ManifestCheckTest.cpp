#include "ManifestCheckTest.h"

#include <system_error>

namespace guard::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

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
  std::error_code error;
  fs::directory_iterator(plugins() / "missing", error);
  EXPECT_THAT(said_, HasSubstr("missing: cannot be read: " + error.message()));
}

TEST_F(Check, EveryFaultOfEveryManifestHasItsLine) {
  AddGood("clock");
  AddGood("relay");
  AddGood("shop");
  Write("clock/plugin.json", "{\n  \"program\": \"run\",\n  \"restart\": {\n    \"factor\": 0\n  }\n}\n");
  Write("shop/plugin.json", "{");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_,
              HasSubstr(Manifest("clock") + ":4:15: restart.factor: must be a number from 1 to 100\n"));
  EXPECT_THAT(said_, HasSubstr(Manifest("shop") + ":1:2: "));
  EXPECT_THAT(said_, HasSubstr("3 manifests below " + plugins().string() + ", 2 faults\n"));
}

TEST_F(Check, ProgramsThatAreNoneAreFaults) {
  for (const char* const id : {"missing", "folder"}) {
    AddGood(id);
    fs::remove(plugins() / id / "run");
  }
  fs::create_directories(plugins() / "folder" / "run");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr(Manifest("missing") + ":1:13: program: " + Program("missing") +
                               ": it does not exist\n"));
  EXPECT_THAT(said_, HasSubstr(Program("folder") + ": it is a directory\n"));
  EXPECT_THAT(said_, HasSubstr(", 2 faults\n"));
}

TEST_F(Check, AMissingWorkingFolderIsAFault) {
  AddGood("clock");
  Write("clock/plugin.json", "{\"program\": \"run\",\n\"workingFolder\": \"data\"}");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr(Manifest("clock") + ":2:18: workingFolder: "));
  fs::create_directories(plugins() / "clock" / "data");
  EXPECT_TRUE(Run()) << said_;
}

TEST_F(Check, TwoFoldersThatClaimOneIdAreAFault) {
  AddGood("clock");
  AddGood("other/Clock");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr((plugins() / "other" / "Clock" / "plugin.json").string() +
                               ": id: \"Clock\" is claimed by " + Manifest("clock") + " as well\n"));
  EXPECT_THAT(said_, HasSubstr(", 1 fault\n"));
}

TEST_F(Check, AClaimCountsAlsoWhereItIsNotTheFoldersName) {
  AddGood("clock");
  AddGood("watch");
  Write("watch/plugin.json", R"({"program": "run", "id": "clock"})");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr(Manifest("watch") + ":1:26: id: must be the folder's name, \"watch\"\n"));
  EXPECT_THAT(said_, HasSubstr(Manifest("watch") + ": id: \"clock\" is claimed by "));
}

TEST_F(Check, OnePluginsOwnFolderCanBeChecked) {
  AddGood("clock");
  for (const fs::path& folder : {plugins() / "clock", plugins() / "clock" / "", plugins() / "clock" / "."}) {
    EXPECT_TRUE(Run(folder)) << said_;
    EXPECT_THAT(said_, HasSubstr("1 manifest below "));
  }
}

}  // namespace
}  // namespace guard::test
