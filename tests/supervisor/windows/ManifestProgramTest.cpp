// Which programs of manifests cannot run here.

#include "ManifestCheckTest.h"

namespace guard::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

TEST_F(Check, ProgramsThatCannotRunAreFaults) {
  AddGood("text");
  Write("text/run", "#!/bin/sh\n");
  AddGood("foreign");
  Write("foreign/run",
        "\x7f"
        "ELF" +
            std::string(60, '\0'));
  AddGood("cut");
  Write("cut/run", "MZ");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr(Program("text") + ": it is no program\n"));
  EXPECT_THAT(said_, HasSubstr(Program("foreign") + ": it is made for another system\n"));
  EXPECT_THAT(said_, HasSubstr(Program("cut") + ": it is cut off\n"));
  EXPECT_THAT(said_, HasSubstr(", 3 faults\n"));
}

TEST_F(Check, TheEndingOfAProgramMayBeLeftOut) {
  AddGood("clock");
  fs::rename(plugins() / "clock" / "run", plugins() / "clock" / "run.exe");
  EXPECT_TRUE(Run()) << said_;
  Write("clock/run.exe", "MZ");
  EXPECT_FALSE(Run());
  EXPECT_THAT(said_, HasSubstr(Program("clock") + ".exe: it is cut off\n"));
}

}  // namespace
}  // namespace guard::test
