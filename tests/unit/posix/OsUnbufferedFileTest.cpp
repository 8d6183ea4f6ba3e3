// What a file written past the cache is only where there are modes, limits and other kinds of files.

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

class OsPosixUnbufferedFile : public testing::Test {
 protected:
  const tolm::test::TempDirectory directory_;
  const fs::path path_ = directory_.path() / "file";
};

TEST_F(OsPosixUnbufferedFile, IsMadeWithTheUsualMode) {
  ASSERT_TRUE(UnbufferedFile::Open(path_.string()));
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  const mode_t mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(status.st_mode & 07777, 0644 & ~mask);
}

TEST_F(OsPosixUnbufferedFile, APipeIsNotOpened) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_FALSE(UnbufferedFile::Open(path_.string()));
}

TEST_F(OsPosixUnbufferedFile, ADiskThatTakesOnlyAPartIsAFailure) {
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
