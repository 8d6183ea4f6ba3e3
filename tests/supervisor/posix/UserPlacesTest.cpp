#include "os/UserPlaces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempDirectory.h"

namespace {

using testing::ElementsAre;
using tolm::test::EnvironmentValue;

TEST(UserPlaces, TheStateFolderIsTheOneOfTheEnvironmentOrLiesInTheHomeFolder) {
  const EnvironmentValue home("HOME", "/users/me");
  {
    const EnvironmentValue state("XDG_STATE_HOME", "/users/me/state");
    EXPECT_EQ(os::UserStateFolder(), "/users/me/state");
  }
  const EnvironmentValue relative("XDG_STATE_HOME", "state");
  EXPECT_EQ(os::UserStateFolder(), "/users/me/.local/state");
  const EnvironmentValue none("XDG_STATE_HOME", std::nullopt);
  EXPECT_EQ(os::UserStateFolder(), "/users/me/.local/state");
  const EnvironmentValue homeless("HOME", std::nullopt);
  EXPECT_EQ(os::UserStateFolder(), "");
}

TEST(UserPlaces, ArgumentsAreMains) {
  const char* const words[] = {"program", "", "b c"};
  EXPECT_THAT(os::OwnArguments(3, words), ElementsAre("program", "", "b c"));
}

TEST(UserPlaces, AProgramsFileHasItsName) {
  EXPECT_EQ(os::ProgramFile("/bin/sh"), "/bin/sh");
  EXPECT_EQ(os::ProgramFile("missing"), "missing");
}

}  // namespace
