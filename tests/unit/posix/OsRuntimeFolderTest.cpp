// The folder that is held open, and what others can make of its place meanwhile.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "RuntimeFolder.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

namespace fs = std::filesystem;

class OsRuntimeFolder : public testing::Test {
 protected:
  RuntimeFolder Open() {
    std::string fault;
    RuntimeFolder folder = RuntimeFolder::Open(fault);
    EXPECT_EQ(fault, "");
    return folder;
  }
  /// Where somebody may write who is not to be trusted: takes the folder away and puts a link to another one
  /// of the user's in its place.
  void Replace() {
    fs::rename(directory_.endpoints(), away_);
    fs::create_directory(elsewhere_);
    fs::permissions(elsewhere_, fs::perms::owner_all);
    fs::create_directory_symlink(elsewhere_, directory_.endpoints());
  }

  const tolm::test::RuntimeDirectory directory_;
  const fs::path away_ = directory_.path() / "away";
  const fs::path elsewhere_ = directory_.path() / "elsewhere";
};

TEST_F(OsRuntimeFolder, FilesAreMadeWhereItIsAndNotWhereItWas) {
  const RuntimeFolder folder = Open();
  Replace();
  EXPECT_TRUE(folder.OpenFile("name.lock", O_CREAT));
  EXPECT_TRUE(fs::exists(away_ / "name.lock"));
  EXPECT_TRUE(fs::is_empty(elsewhere_));
}

TEST_F(OsRuntimeFolder, FilesAreRemovedWhereItIsAndNotWhereItWas) {
  const RuntimeFolder folder = Open();
  EXPECT_TRUE(folder.OpenFile("name.lock", O_CREAT));
  Replace();
  std::ofstream(elsewhere_ / "name.lock") << "precious";
  EXPECT_TRUE(folder.Remove("name.lock"));
  EXPECT_FALSE(fs::exists(away_ / "name.lock"));
  EXPECT_TRUE(fs::exists(elsewhere_ / "name.lock"));
  EXPECT_FALSE(folder.Remove("name.lock"));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(OsRuntimeFolder, AFileThatLiesElsewhereIsNotTheOneThere) {
  const RuntimeFolder folder = Open();
  Replace();
  std::ofstream(elsewhere_ / "name.lock").close();
  const Descriptor file(::open((elsewhere_ / "name.lock").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_FALSE(folder.Holds("name.lock", file));
  const Descriptor own = folder.OpenFile("name.lock", O_CREAT);
  EXPECT_TRUE(folder.Holds("name.lock", own));
  EXPECT_FALSE(folder.ClaimSocket("name.lock")) << "it is no socket";
  EXPECT_FALSE(folder.ClaimSocket("name.sock")) << "none was bound here";
}

TEST_F(OsRuntimeFolder, ItsFilesAndItselfAreKeptFromChildren) {
  const RuntimeFolder folder = Open();
  const Descriptor file = folder.OpenFile("name.lock", O_CREAT);
  EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
  struct stat status {};
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

}  // namespace
}  // namespace os
