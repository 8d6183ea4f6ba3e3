// Whom a log file is for, and what children get of it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "TolmBase/Log.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"

namespace Tolm::Base {
namespace {

namespace fs = std::filesystem;

class LogFileAccess : public testing::Test {
 protected:
  LogFileAccess() : before_(::umask(0)) { SetLogStderrLevel(kLogLevelOff); }
  ~LogFileAccess() override {
    SetLogFile({}, 0, 0, kLogLevelOff);
    SetLogStderrLevel(kLogLevelError);
    ::umask(before_);
  }

  static mode_t ModeOf(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 07777;
  }
  void LogUntilRotated() const {
    for (int i = 0; i < 100 && !fs::exists(folder_.path() / "log.2.txt"); ++i) {
      details::OMLQFormatLog(kLogLevelInfo, "Test", "a line of some %d bytes", 30);
    }
    ASSERT_TRUE(fs::exists(folder_.path() / "log.2.txt"));
  }

  const tolm::test::TempDirectory folder_;
  const fs::path file_ = folder_.path() / "log.txt";
  const mode_t before_;
};

TEST_F(LogFileAccess, EachFileIsForTheUserAlone) {
  tolm::test::Rows rows("files");
  ASSERT_TRUE(SetLogFile(file_.string(), 500, 2, kLogLevelInfo));
  rows.Expect(mode_t{0600}, ModeOf(file_), "the file");
  LogUntilRotated();
  for (const char* name : {"log.txt", "log.1.txt", "log.2.txt"}) {
    rows.Expect(mode_t{0600}, ModeOf(folder_.path() / name), name);
  }
}

TEST_F(LogFileAccess, AFileThatIsThereKeepsItsMode) {
  tolm::test::Rows rows("files");
  std::ofstream(file_) << "a line\n";
  fs::permissions(file_, fs::perms(0640));
  ASSERT_TRUE(SetLogFile(file_.string(), 500, 2, kLogLevelInfo));
  details::OMLQFormatLog(kLogLevelInfo, "Test", "another line");
  rows.Expect(mode_t{0640}, ModeOf(file_), "the file");
  rows.Expect(true, fs::file_size(file_) > 7, "it is written on");
}

TEST_F(LogFileAccess, IsKeptFromChildren) {
  tolm::test::Rows rows("inherited");
  ASSERT_TRUE(SetLogFile(file_.string(), 500, 2, kLogLevelInfo));
  LogUntilRotated();
  int found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) != fs::canonical(file_)) continue;
    ++found;
    const int descriptor = std::stoi(entry.path().filename().string());
    rows.Expect(FD_CLOEXEC, ::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, "its descriptor");
  }
  rows.Expect(1, found, "descriptors of it");
}

}  // namespace
}  // namespace Tolm::Base
