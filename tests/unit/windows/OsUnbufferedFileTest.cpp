// Who else may have the file open, as this system has it.

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <fstream>

#include "os/UnbufferedFile.h"
#include "support/TempDirectory.h"
#include "support/windows/OwnedHandle.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::OwnedHandle;

TEST(OsWindowsUnbufferedFile, IsSharedWithNobody) {
  const tolm::test::TempDirectory directory;
  const fs::path path = directory.path() / "file";
  const auto file = UnbufferedFile::Open(path.string());
  ASSERT_TRUE(file);
  const OwnedHandle other(::CreateFileW(path.c_str(), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
  const DWORD error = ::GetLastError();
  EXPECT_FALSE(other);
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

TEST(OsWindowsUnbufferedFile, IsNotOpenedWhileSomebodyReadsIt) {
  const tolm::test::TempDirectory directory;
  const fs::path path = directory.path() / "file";
  std::ofstream(path) << "content";
  {
    const std::ifstream reader(path);
    EXPECT_FALSE(UnbufferedFile::Open(path.string()));
  }
  EXPECT_TRUE(UnbufferedFile::Open(path.string()));
}

}  // namespace
}  // namespace os
