#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "OsRoles.h"
#include "os/UnbufferedFile.h"
#include "support/ChildProcess.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::ChildProcess;
using tolm::test::InRole;

constexpr std::size_t kBlock = 4096;  // no disk's blocks are larger

std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// No two blocks of it are the same.
std::string Pattern(std::size_t size) {
  std::string text;
  for (std::size_t i = 0; text.size() < size; ++i) text += std::to_string(i) + "\n";
  text.resize(size);
  return text;
}

class OsUnbufferedFile : public testing::Test {
 protected:
  const tolm::test::TempDirectory directory_;
  const fs::path path_ = directory_.path() / "file";
};

TEST_F(OsUnbufferedFile, IsMadeEmptyWhenThereIsNone) {
  const auto file = UnbufferedFile::Open(path_.string());
  ASSERT_TRUE(file);
  std::uint64_t size = 1;
  EXPECT_TRUE(file->Size(size));
  EXPECT_EQ(size, 0u);
}

TEST_F(OsUnbufferedFile, TellsTheSizeOfWhatIsThere) {
  for (const std::size_t size : {1u, 511u, 512u, 513u, 4095u, 4096u, 4097u}) {
    std::ofstream(path_, std::ios::binary) << Pattern(size);
    std::uint64_t told = 0;
    EXPECT_TRUE(UnbufferedFile::Open(path_.string())->Size(told));
    EXPECT_EQ(told, size);
    EXPECT_EQ(Content(path_), Pattern(size)) << "opening changes nothing";
  }
}

TEST_F(OsUnbufferedFile, HoldsWhatWasWrittenWhateverItsSize) {
  for (const std::size_t blocks : {1u, 2u, 3u, 15u, 16u, 17u, 256u, 1000u}) {
    fs::remove(path_);
    const std::string text = Pattern(blocks * kBlock);
    ASSERT_TRUE(UnbufferedFile::Open(path_.string())->WriteFromStart(text, kBlock)) << blocks;
    EXPECT_EQ(Content(path_), text) << blocks;
  }
}

TEST_F(OsUnbufferedFile, BlocksSmallerThanTheDisksAreWrittenOrRefusedAsAWhole) {
  for (const std::size_t block : {512u, 1024u, 2048u}) {
    for (const std::size_t blocks : {1u, 2u, 7u, 8u, 9u}) {
      fs::remove(path_);
      const std::string text = Pattern(blocks * block);
      const bool written = UnbufferedFile::Open(path_.string())->WriteFromStart(text, block);
      EXPECT_EQ(Content(path_), written ? text : "") << block << " * " << blocks;
    }
  }
}

TEST_F(OsUnbufferedFile, BlocksLargerThanAPageAreWritten) {
  const std::string text = Pattern(3 * 65536);
  EXPECT_TRUE(UnbufferedFile::Open(path_.string())->WriteFromStart(text, 65536));
  EXPECT_EQ(Content(path_), text);
}

TEST_F(OsUnbufferedFile, IsNeverTruncated) {
  const std::string before = Pattern(3 * kBlock + 100);
  std::ofstream(path_, std::ios::binary) << before;
  const std::string text(kBlock, 'x');
  EXPECT_TRUE(UnbufferedFile::Open(path_.string())->WriteFromStart(text, kBlock));
  EXPECT_EQ(Content(path_), text + before.substr(kBlock));
}

TEST_F(OsUnbufferedFile, EachWritingBeginsAtTheStart) {
  auto file = UnbufferedFile::Open(path_.string());
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->WriteFromStart(std::string(2 * kBlock, 'a'), kBlock));
  EXPECT_TRUE(file->WriteFromStart(std::string(kBlock, 'b'), kBlock));
  EXPECT_TRUE(file->WriteFromStart("", kBlock));
  file.reset();
  EXPECT_EQ(Content(path_), std::string(kBlock, 'b') + std::string(kBlock, 'a'));
}

TEST_F(OsUnbufferedFile, WhatIsNoMultipleOfTheBlockIsRefused) {
  const auto file = UnbufferedFile::Open(path_.string());
  ASSERT_TRUE(file);
  for (const std::size_t size : {std::size_t{1}, kBlock - 1, kBlock + 1, 2 * kBlock - 512}) {
    EXPECT_FALSE(file->WriteFromStart(std::string(size, 'x'), kBlock)) << size;
  }
  for (const std::size_t block : {std::size_t{0}, std::size_t{3}, kBlock - 1, 3 * kBlock}) {
    EXPECT_FALSE(file->WriteFromStart(std::string(block, 'x'), block)) << block;
  }
  EXPECT_EQ(fs::file_size(path_), 0u);
}

TEST_F(OsUnbufferedFile, IsOpenOnceAtATime) {
  auto file = UnbufferedFile::Open(path_.string());
  ASSERT_TRUE(file);
  EXPECT_FALSE(UnbufferedFile::Open(path_.string()));
  ChildProcess other(InRole({"hold-file", path_.string()}));
  EXPECT_TRUE(other.WaitForLine("not opened")) << "for other processes, too";
  file.reset();
  EXPECT_TRUE(UnbufferedFile::Open(path_.string()));
}

TEST_F(OsUnbufferedFile, IsFreedWhenItsHolderIsKilled) {
  ChildProcess holder(InRole({"hold-file", path_.string()}));
  ASSERT_TRUE(holder.WaitForLine("ready"));
  EXPECT_FALSE(UnbufferedFile::Open(path_.string()));
  holder.Kill();
  ASSERT_TRUE(holder.WaitExit());
  EXPECT_TRUE(UnbufferedFile::Open(path_.string()));
}

TEST_F(OsUnbufferedFile, WhatIsNoFileIsNotOpened) {
  EXPECT_FALSE(UnbufferedFile::Open(directory_.path().string())) << "a directory";
  EXPECT_FALSE(UnbufferedFile::Open((directory_.path() / "missing" / "file").string()));
  EXPECT_FALSE(UnbufferedFile::Open(""));
}

TEST_F(OsUnbufferedFile, MayLieInAFolderOfAnyName) {
  const fs::path folder = directory_.path() / u8"a b \u00E4\u20AC";
  fs::create_directory(folder);
  const std::string text = Pattern(kBlock);
  const auto file = UnbufferedFile::Open((folder / u8"\u00FC.xml").string());
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->WriteFromStart(text, kBlock));
  EXPECT_EQ(fs::file_size(folder / u8"\u00FC.xml"), kBlock);
}

}  // namespace
}  // namespace os
