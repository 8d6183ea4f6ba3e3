#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "UserState.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using tolm::test::UserState;

std::optional<int> Read(std::vector<std::string> words, Options& options) {
  words.insert(words.begin(), "TolmGuard.exe");
  return ReadOptions(words, options);
}

/// An absolute path; the system's roots differ.
fs::path Root() {
  return fs::current_path().root_path();
}

TEST(Options, WithoutWordsEverythingIsLeftToThePlace) {
  Options options;
  EXPECT_EQ(Read({}, options), std::nullopt);
  EXPECT_EQ(options.role, Role::kClient);
  EXPECT_EQ(options.lost_grace, Milliseconds(10000));
  EXPECT_FALSE(options.check);
  EXPECT_TRUE(options.config.empty());
}

TEST(Options, AllAreRead) {
  Options options;
  EXPECT_EQ(Read({"--config", "c.xml", "--role", "Server", "--host", "/opt/host", "--plugins", "p", "--logs",
                  "l", "--lost-grace", "2.5"},
                 options),
            std::nullopt);
  EXPECT_EQ(options.config, "c.xml");
  EXPECT_EQ(options.role, Role::kServer);
  EXPECT_EQ(options.host, "/opt/host");
  EXPECT_EQ(options.plugins, "p");
  EXPECT_EQ(options.logs, "l");
  EXPECT_EQ(options.lost_grace, Milliseconds(2500));
}

TEST(Options, TheFolderToCheckMayBeLeftOut) {
  Options options;
  EXPECT_EQ(Read({"--check"}, options), std::nullopt);
  EXPECT_TRUE(options.check);
  EXPECT_TRUE(options.check_folder.empty());
  Options with_folder;
  EXPECT_EQ(Read({"--check", "plugins"}, with_folder), std::nullopt);
  EXPECT_TRUE(with_folder.check);
  EXPECT_EQ(with_folder.check_folder, "plugins");
}

TEST(Options, MistakesEndWithStatusTwo) {
  const std::vector<std::vector<std::string>> mistakes = {{"--role", "Other"},
                                                          {"--lost-grace", "-1"},
                                                          {"--lost-grace", "soon"},
                                                          {"--config"},
                                                          {"--once"},
                                                          {"word"}};
  for (const auto& words : mistakes) {
    Options options;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Read(words, options), 2) << words.front();
    EXPECT_NE(testing::internal::GetCapturedStderr(), "") << words.front();
  }
}

TEST(Options, HelpNamesEveryOptionAndExitStatus) {
  Options options;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Read({"--help"}, options), 0);
  const std::string help = testing::internal::GetCapturedStdout();
  for (const char* const word :
       {"--config", "--role", "--host", "--plugins", "--logs", "--lost-grace", "--check", "--version",
        "--help", "SIGTERM", "Exit status", "LpcFrame.xml", "XDG_STATE_HOME", "LOCALAPPDATA"}) {
    EXPECT_THAT(help, HasSubstr(word));
  }
}

TEST(Options, VersionIsOneLine) {
  Options options;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Read({"--version"}, options), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("TolmGuard ") + TOLM_GUARD_VERSION + "\n");
}

TEST(Places, AreFoundFromTheGuardsOwnFolder) {
  const fs::path app = Root() / "opt/app";
  for (const char* const own : {"TolmAgent/TolmGuard/", "TolmAgent/TolmGuard"}) {
    const Places places = FindPlaces({}, app / own);
    EXPECT_EQ(places.config, app / "LpcFrame.xml");
    EXPECT_EQ(places.plugins, app / "plugins");
    EXPECT_TRUE(places.plugins_may_move);
    EXPECT_EQ(places.logs.front(), app / "TolmAgent/log");
  }
}

TEST(Places, LogsMayGoToTheUsersOwnFolder) {
  const fs::path own = Root() / "opt/app/TolmAgent/TolmGuard";
  {
    const UserState state(Root() / "users/me/state");
    EXPECT_THAT(FindPlaces({}, own).logs,
                ElementsAre(Root() / "opt/app/TolmAgent/log", Root() / "users/me/state/tolm-guard"));
  }
  const UserState none;
  EXPECT_EQ(FindPlaces({}, own).logs.size(), 1u);
}

TEST(Places, PluginsAreBesideTheHostThatTheCommandLineNames) {
  Options options;
  options.host = Root() / "srv/host/Host.exe";
  const Places places = FindPlaces(options, Root() / "opt/app/TolmAgent/TolmGuard/");
  EXPECT_EQ(places.plugins, Root() / "srv/host/plugins");
  EXPECT_FALSE(places.plugins_may_move);
}

TEST(Places, WhatTheCommandLineNamesIsUsedAndMadeAbsolute) {
  Options options;
  options.config = "./c.xml";
  options.host = Root() / "srv/host/Host.exe";
  options.plugins = "a/../p";
  options.logs = "l";
  const Places places = FindPlaces(options, Root() / "opt/app/TolmAgent/TolmGuard/");
  EXPECT_EQ(places.config, fs::current_path() / "c.xml");
  EXPECT_EQ(places.plugins, fs::current_path() / "p");
  EXPECT_FALSE(places.plugins_may_move);
  EXPECT_THAT(places.logs, ElementsAre(fs::current_path() / "l"));
}

}  // namespace
}  // namespace guard
