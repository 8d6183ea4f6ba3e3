#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/System.h"
#include "support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
using tolm::test::EnvironmentValue;

TEST(UserPlaces, TheStateFolderIsLocalApplicationData) {
  {
    const EnvironmentValue local("LOCALAPPDATA", "C:\\users\\me\\Local");
    EXPECT_EQ(os::UserStateFolder(), "C:\\users\\me\\Local");
  }
  {
    const EnvironmentValue relative("LOCALAPPDATA", "Local");
    EXPECT_EQ(os::UserStateFolder(), "");
  }
  const EnvironmentValue none("LOCALAPPDATA", std::nullopt);
  EXPECT_EQ(os::UserStateFolder(), "");
}

TEST(UserPlaces, ArgumentsAreTheProcessesOwn) {
  const char* const other[] = {"other"};
  const auto words = os::OwnArguments(1, other);
  ASSERT_FALSE(words.empty());
  EXPECT_EQ(fs::path(words.front()).filename(), tolm::test::ThisProgram().filename());
}

TEST(UserPlaces, TheEndingOfAProgramMayBeLeftOut) {
  const tolm::test::TempDirectory folder;
  const std::string program = (folder.path() / os::Utf8Path("clock \xc3\xa4")).string();
  EXPECT_EQ(os::ProgramFile(program), program) << "there is neither";
  std::ofstream(os::Utf8Path(program + ".exe")) << "MZ";
  EXPECT_EQ(os::ProgramFile(program), program + ".exe");
  EXPECT_EQ(os::ProgramFile(program + ".exe"), program + ".exe");
  fs::create_directory(os::Utf8Path(program));
  EXPECT_EQ(os::ProgramFile(program), program + ".exe") << "a folder is no program";
  fs::remove(os::Utf8Path(program));
  std::ofstream(os::Utf8Path(program)) << "MZ";
  EXPECT_EQ(os::ProgramFile(program), program) << "the very name comes first";
}

}  // namespace
