#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "TolmBase/FileUtil.h"
#include "support/System.h"

namespace {

using namespace Tolm::Base::FileUtil;

constexpr char kSeparator = static_cast<char>(std::filesystem::path::preferred_separator);

/// What is published is process-wide: every case leaves nothing published, as it is at first.
class ExecutableDirectory : public testing::Test {
 protected:
  void TearDown() override { InitCurExeDirUtf8(""); }
};

TEST_F(ExecutableDirectory, HoldsTheRunningProgramAndEndsWithASeparator) {
  const std::string dir = GetCurExeDir();
  ASSERT_FALSE(dir.empty());
  EXPECT_EQ(dir.back(), kSeparator);
  const std::filesystem::path program = tolm::test::ThisProgram();
  EXPECT_EQ(dir + program.filename().string(), program.string());
}

TEST_F(ExecutableDirectory, IsItsOwnUtf8FormUntilOneIsPublished) {
  EXPECT_EQ(GetCurExeDirUtf8(), GetCurExeDir());
}

TEST_F(ExecutableDirectory, IsWhatWasPublished) {
  InitCurExeDirUtf8("/opt/one/");
  EXPECT_EQ(GetCurExeDirUtf8(), "/opt/one/");
  InitCurExeDirUtf8("C:\\two\\");
  EXPECT_EQ(GetCurExeDirUtf8(), "C:\\two\\");
  EXPECT_NE(GetCurExeDir(), GetCurExeDirUtf8());
}

TEST_F(ExecutableDirectory, GetsASeparatorWhereOneIsMissing) {
  InitCurExeDirUtf8("/opt/one");
  EXPECT_EQ(GetCurExeDirUtf8(), std::string("/opt/one") + kSeparator);
}

TEST_F(ExecutableDirectory, PublishedAsEmptyStaysTheProgramsAndNeverBecomesTheRoot) {
  InitCurExeDirUtf8("/opt/one/");
  InitCurExeDirUtf8("");
  EXPECT_EQ(GetCurExeDirUtf8(), GetCurExeDir());
}

TEST_F(ExecutableDirectory, MayBePublishedAndReadByManyThreads) {
  InitCurExeDirUtf8("/a/");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 1000; ++round) {
        if (i % 2 == 0) InitCurExeDirUtf8(round % 2 == 0 ? "/a" : "/a/b/");
        const std::string dir = GetCurExeDirUtf8();
        EXPECT_TRUE(dir == std::string("/a") + kSeparator || dir == "/a/" || dir == "/a/b/") << dir;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
