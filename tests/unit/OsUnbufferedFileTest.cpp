#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "ForkedChild.h"
#include "os/UnbufferedFile.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

namespace fs = std::filesystem;

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
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  const mode_t mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(status.st_mode & 07777, 0644 & ~mask);
}

TEST_F(OsUnbufferedFile, TellsTheSizeOfWhatIsThere) {
  for (const std::size_t size : {1u, 511u, 512u, 513u, 4095u, 4096u, 4097u}) {
    std::ofstream(path_) << Pattern(size);
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
  std::ofstream(path_) << before;
  const std::string text(kBlock, 'x');
  EXPECT_TRUE(UnbufferedFile::Open(path_.string())->WriteFromStart(text, kBlock));
  EXPECT_EQ(Content(path_), text + before.substr(kBlock));
}

TEST_F(OsUnbufferedFile, EachWritingBeginsAtTheStart) {
  const auto file = UnbufferedFile::Open(path_.string());
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->WriteFromStart(std::string(2 * kBlock, 'a'), kBlock));
  EXPECT_TRUE(file->WriteFromStart(std::string(kBlock, 'b'), kBlock));
  EXPECT_TRUE(file->WriteFromStart("", kBlock));
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
  tolm::test::ForkedChild child(
      [this](const auto&) { return UnbufferedFile::Open(path_.string()) == nullptr ? 0 : 1; });
  EXPECT_EQ(child.Join(), 0) << "for other processes, too";
  file.reset();
  EXPECT_TRUE(UnbufferedFile::Open(path_.string()));
}

TEST_F(OsUnbufferedFile, IsFreedWhenItsHolderIsKilled) {
  tolm::test::ForkedChild child([this](const auto& voice) {
    const auto file = UnbufferedFile::Open(path_.string());
    voice.Say(file != nullptr ? 'y' : 'n');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'y');
  EXPECT_FALSE(UnbufferedFile::Open(path_.string()));
  child.Kill();
  EXPECT_TRUE(UnbufferedFile::Open(path_.string()));
}

TEST_F(OsUnbufferedFile, WhatIsNoFileIsNotOpened) {
  EXPECT_FALSE(UnbufferedFile::Open(directory_.path().string())) << "a directory";
  EXPECT_FALSE(UnbufferedFile::Open((directory_.path() / "missing" / "file").string()));
  EXPECT_FALSE(UnbufferedFile::Open(""));
  const fs::path fifo = directory_.path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(UnbufferedFile::Open(fifo.string()));
}

TEST_F(OsUnbufferedFile, ADiskThatTakesOnlyAPartIsAFailure) {
  tolm::test::ForkedChild child([this](const auto&) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{2 * kBlock, 2 * kBlock};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    const auto file = UnbufferedFile::Open(path_.string());
    if (file == nullptr) return 2;
    if (file->WriteFromStart(std::string(3 * kBlock, 'x'), kBlock)) return 3;
    return file->WriteFromStart(std::string(2 * kBlock, 'x'), kBlock) ? 0 : 4;
  });
  EXPECT_EQ(child.Join(), 0);
}

// A file system in memory, which has no disk to write to past the cache; some systems' takes the flag.
TEST(OsUnbufferedFileInMemory, IsWrittenAllTheSame) {
  const fs::path folder = "/dev/shm";
  if (!fs::is_directory(folder) || ::access(folder.c_str(), W_OK) != 0) GTEST_SKIP() << "no such folder";
  const fs::path path = folder / ("tolm-unbuffered-" + std::to_string(::getpid()));
  const std::string text = Pattern(2 * kBlock);
  const bool written = UnbufferedFile::Open(path.string())->WriteFromStart(text, kBlock);
  const std::string content = Content(path);
  fs::remove(path);
  EXPECT_TRUE(written);
  EXPECT_EQ(content, text);
}

}  // namespace
}  // namespace os
