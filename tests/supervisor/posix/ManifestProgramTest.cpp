// Which programs of manifests cannot run here.

#include "ManifestCheckTest.h"

namespace guard::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

TEST_F(Check, ProgramsThatCannotRunAreFaults) {
  AddGood("plain");
  fs::permissions(plugins() / "plain" / "run", fs::perms::owner_read);
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
       {"plain/run: it is not executable\n", "foreign/run: it is made for another machine (number 42)\n",
        "script/run: its interpreter /no/such/shell is missing\n", ", 3 faults\n"}) {
    EXPECT_THAT(said_, HasSubstr(fault));
  }
}

TEST_F(Check, AProgramOfWindowsIsAFault) {
  AddGood("clock");
  Write("clock/run", "MZ" + std::string(126, '\0'), true);
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr("clock/run: it is made for another system (Windows)\n"));
}

TEST_F(Check, AScriptCanRun) {
  AddGood("clock");
  fs::remove(plugins() / "clock" / "run");
  Write("clock/run", "#!/bin/sh\n", true);
  EXPECT_TRUE(Run()) << said_;
}

}  // namespace
}  // namespace guard::test
