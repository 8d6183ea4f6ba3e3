// Whom a plugin's log is for, and what of it is masked.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "OutputFile.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 07777;
}

TEST(OutputFileAccess, EachFileAndTheFolderAreForTheUserAlone) {
  tolm::test::Rows rows("files");
  const tolm::test::TempDirectory folder;
  const mode_t before = ::umask(0);
  {
    OutputFile file(folder.path() / "log" / "a.log", {.max_bytes = 300, .files = 3});
    for (int i = 0; i < 20; ++i) file.Write("a line of the plugin\n");
  }
  ::umask(before);
  rows.Expect(mode_t{0700}, ModeOf(folder.path() / "log"), "the folder");
  for (const char* name : {"a.log", "a.log.1", "a.log.2"}) {
    rows.Expect(mode_t{0600}, ModeOf(folder.path() / "log" / name), name);
  }
}

TEST(OutputFileAccess, WhatTheGuardNotesHoldsNoSessionIdAndWhatThePluginPrintsIsAsItIs) {
  const tolm::test::TempDirectory folder;
  const std::string id = "SID=5ec7e75ec7e75ec7e75ec7e75ec7e75e";
  OutputFile file(folder.path() / "a.log", {});
  file.Note("started, process 1: program --url /x?" + id);
  std::ifstream stream(folder.path() / "a.log");
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  EXPECT_EQ(text.find(id), std::string::npos) << text;
  EXPECT_NE(text.find("/x?SID=****"), std::string::npos) << text;
  file.Write(id + "\n");
  stream = std::ifstream(folder.path() / "a.log");
  text.assign(std::istreambuf_iterator<char>(stream), {});
  EXPECT_NE(text.find("[out] " + id), std::string::npos) << text;
}

}  // namespace
}  // namespace guard
