// Whom the files are for that are made here, whatever the umask.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "os/ChildProcess.h"
#include "os/NamedEvent.h"
#include "os/PrivateFiles.h"
#include "os/UnbufferedFile.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::Rows;

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 07777;
}

/// The umask belongs to the whole process.
class Umask {
 public:
  explicit Umask(mode_t mask) : before_(::umask(mask)) {}
  ~Umask() { ::umask(before_); }

 private:
  const mode_t before_;
};

constexpr mode_t kMasks[] = {0000, 0002, 0022, 0077};

TEST(OsPrivateFiles, AreForTheUserAlone) {
  Rows rows("files");
  for (const mode_t mask : kMasks) {
    const tolm::test::TempDirectory folder;
    const Umask umask(mask);
    const std::string row = "umask " + std::to_string(mask);
    MakePrivateFolders(folder.path() / "a" / "b");
    rows.Expect(mode_t{0700}, ModeOf(folder.path() / "a"), row + ", the upper folder");
    rows.Expect(mode_t{0700}, ModeOf(folder.path() / "a" / "b"), row + ", the lower folder");
    MakePrivateFile(folder.path() / "a" / "file");
    rows.Expect(mode_t{0600}, ModeOf(folder.path() / "a" / "file"), row + ", the file");
  }
}

TEST(OsPrivateFiles, LeaveWhatIsThereAsItIs) {
  Rows rows("files");
  const tolm::test::TempDirectory folder;
  std::ofstream(folder.path() / "file") << "content";
  fs::permissions(folder.path() / "file", fs::perms(0644));
  MakePrivateFile(folder.path() / "file");
  rows.Expect(mode_t{0644}, ModeOf(folder.path() / "file"), "the file's mode");
  rows.Expect(std::uintmax_t{7}, fs::file_size(folder.path() / "file"), "the file's content");
  fs::create_directory(folder.path() / "folder");
  fs::permissions(folder.path() / "folder", fs::perms(0755));
  MakePrivateFolders(folder.path() / "folder" / "new");
  rows.Expect(mode_t{0755}, ModeOf(folder.path() / "folder"), "the folder's mode");
  fs::create_symlink(folder.path() / "nothing", folder.path() / "link");
  MakePrivateFile(folder.path() / "link");
  rows.Expect(false, fs::exists(folder.path() / "nothing"), "what a link leads to");
  MakePrivateFile(folder.path() / "missing" / "file");
  MakePrivateFolders(folder.path() / "file" / "below");
  rows.Expect(false, fs::exists(folder.path() / "missing"), "what cannot be made");
}

TEST(OsPrivateFiles, EventsAndLocksAreForTheUserAlone) {
  Rows rows("files");
  for (const mode_t mask : kMasks) {
    const tolm::test::RuntimeDirectory runtime;
    const Umask umask(mask);
    int error = 0;
    const auto event = NamedEvent::Create("event", error);
    ASSERT_TRUE(event) << error;
    std::string why;
    const auto lock = ProcessLock::TryTake("lock", why);
    ASSERT_TRUE(lock) << why;
    rows.Expect(mode_t{0700}, ModeOf(runtime.endpoints()), "umask " + std::to_string(mask) + ", the folder");
    for (const auto& entry : fs::directory_iterator(runtime.endpoints())) {
      rows.Expect(mode_t{0600}, ModeOf(entry.path()),
                  "umask " + std::to_string(mask) + ", " + entry.path().string());
    }
  }
}

TEST(OsPrivateFiles, TheFileWithThePortMayBeRead) {
  Rows rows("files");
  for (const mode_t mask : kMasks) {
    const tolm::test::TempDirectory folder;
    const Umask umask(mask);
    const fs::path path = folder.path() / "LpcFrame.xml";
    ASSERT_TRUE(UnbufferedFile::Open(path.string()));
    rows.Expect(mode_t{0644} & ~mask, ModeOf(path), "umask " + std::to_string(mask));
    fs::permissions(path, fs::perms(0640));
    ASSERT_TRUE(UnbufferedFile::Open(path.string()));
    rows.Expect(mode_t{0640}, ModeOf(path), "umask " + std::to_string(mask) + ", one that is there");
  }
}

}  // namespace
}  // namespace os
