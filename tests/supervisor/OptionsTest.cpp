#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempDirectory.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

std::optional<int> Read(std::vector<const char*> words, Options& options) {
  words.insert(words.begin(), "TolmGuard.exe");
  return ReadOptions(static_cast<int>(words.size()), words.data(), options);
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
  const std::vector<std::vector<const char*>> mistakes = {{"--role", "Other"},
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
        "--help", "SIGTERM", "Exit status", "LpcFrame.xml", "XDG_STATE_HOME"}) {
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
  const tolm::test::EnvironmentValue state("XDG_STATE_HOME", "/users/me/state");
  for (const char* const own : {"/opt/app/TolmAgent/TolmGuard/", "/opt/app/TolmAgent/TolmGuard"}) {
    const Places places = FindPlaces({}, own);
    EXPECT_EQ(places.config, "/opt/app/LpcFrame.xml");
    EXPECT_EQ(places.plugins, "/opt/app/plugins");
    EXPECT_TRUE(places.plugins_may_move);
    EXPECT_THAT(places.logs, ElementsAre("/opt/app/TolmAgent/log", "/users/me/state/tolm-guard"));
  }
}

TEST(Places, LogsMayGoToTheUsersOwnFolder) {
  const tolm::test::EnvironmentValue state("XDG_STATE_HOME", std::nullopt);
  const tolm::test::EnvironmentValue home("HOME", "/users/me");
  EXPECT_EQ(FindPlaces({}, "/opt/app/TolmAgent/TolmGuard/").logs.back(), "/users/me/.local/state/tolm-guard");
  const tolm::test::EnvironmentValue relative("XDG_STATE_HOME", "state");
  EXPECT_EQ(FindPlaces({}, "/opt/app/TolmAgent/TolmGuard/").logs.back(), "/users/me/.local/state/tolm-guard");
}

TEST(Places, PluginsAreBesideTheHostThatTheCommandLineNames) {
  Options options;
  options.host = "/srv/host/Host.exe";
  const Places places = FindPlaces(options, "/opt/app/TolmAgent/TolmGuard/");
  EXPECT_EQ(places.plugins, "/srv/host/plugins");
  EXPECT_FALSE(places.plugins_may_move);
}

TEST(Places, WhatTheCommandLineNamesIsUsedAndMadeAbsolute) {
  Options options;
  options.config = "./c.xml";
  options.host = "/srv/host/Host.exe";
  options.plugins = "a/../p";
  options.logs = "l";
  const Places places = FindPlaces(options, "/opt/app/TolmAgent/TolmGuard/");
  EXPECT_EQ(places.config, fs::current_path() / "c.xml");
  EXPECT_EQ(places.plugins, fs::current_path() / "p");
  EXPECT_FALSE(places.plugins_may_move);
  EXPECT_THAT(places.logs, ElementsAre(fs::current_path() / "l"));
}

}  // namespace
}  // namespace guard
