// Where endpoints lie, who holds them, and what is left of them.

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "os/LocalStream.h"
#include "support/TempDirectory.h"

namespace os {
namespace {

namespace fs = std::filesystem;

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class OsLocalEndpoint : public testing::Test {
 protected:
  EndpointError Listen(const std::string& name) {
    auto made = SystemTransport().Listen(name);
    listener_ = std::move(made.value);
    message_ = made.message;
    return made.error;
  }

  const tolm::test::RuntimeDirectory directory_;
  const fs::path folder_ = directory_.endpoints();
  std::unique_ptr<Listener> listener_;
  std::string message_;
};

TEST_F(OsLocalEndpoint, LiesInAFolderThatOnlyTheUserMayEnter) {
  ASSERT_EQ(Listen("name"), EndpointError::kNone);
  EXPECT_EQ(ModeOf(folder_), 0700u);
  EXPECT_EQ(ModeOf(folder_ / "name.sock"), 0600u);
  EXPECT_EQ(ModeOf(folder_ / "name.lock"), 0600u);
  listener_.reset();
  EXPECT_TRUE(fs::is_empty(folder_)) << "nothing is left behind";
}

TEST_F(OsLocalEndpoint, WithoutARuntimeDirectoryItLiesInTheTemporaryOne) {
  const tolm::test::TempDirectory temporary;
  for (const std::optional<std::string>& runtime :
       {std::optional<std::string>(), std::optional<std::string>("relative")}) {
    const tolm::test::EnvironmentValue no_runtime("XDG_RUNTIME_DIR", runtime);
    const tolm::test::EnvironmentValue tmpdir("TMPDIR", temporary.path().string());
    ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
    EXPECT_TRUE(fs::exists(temporary.path() / ("tolm-lpc-" + std::to_string(::geteuid())) / "name.sock"));
    EXPECT_TRUE(SystemTransport().Connect("name").value);
    listener_.reset();
  }
}

TEST_F(OsLocalEndpoint, NamesAreShortAndPlain) {
  for (const std::string& name : {std::string("a"), std::string("A.b-c_9"), std::string("-"),
                                  std::string("_"), std::string("a.."), std::string(64, 'x')}) {
    EXPECT_TRUE(IsEndpointName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("a b"),
        std::string("a\0", 2), std::string("\xC3\xA4"), std::string(65, 'x')}) {
    EXPECT_FALSE(IsEndpointName(name)) << name;
  }
}

TEST_F(OsLocalEndpoint, APathTooLongForASocketIsNoName) {
  const fs::path deep = directory_.path() / std::string(100, 'd');
  fs::create_directory(deep);
  const tolm::test::EnvironmentValue runtime("XDG_RUNTIME_DIR", deep.string());
  EXPECT_EQ(Listen("name"), EndpointError::kNameInvalid);
  EXPECT_NE(message_.find("too long"), std::string::npos) << message_;
  EXPECT_EQ(SystemTransport().Connect("name").error, EndpointError::kNameInvalid);
}

TEST_F(OsLocalEndpoint, AFolderThatCannotBeMadeIsAFailure) {
  const tolm::test::EnvironmentValue runtime("XDG_RUNTIME_DIR", (directory_.path() / "missing").string());
  EXPECT_EQ(Listen("name"), EndpointError::kFailed);
  EXPECT_NE(message_.find("missing/tolm-lpc"), std::string::npos) << message_;
  EXPECT_EQ(SystemTransport().Connect("name").error, EndpointError::kNobodyListens);
}

TEST_F(OsLocalEndpoint, AFolderThatIsAFileOrALinkIsNotUsed) {
  std::ofstream(folder_) << "a file";
  EXPECT_EQ(Listen("name"), EndpointError::kFailed);
  fs::remove(folder_);
  const tolm::test::TempDirectory elsewhere;
  fs::create_directory_symlink(elsewhere.path(), folder_);
  EXPECT_EQ(Listen("name"), EndpointError::kFailed) << "somebody else may have laid it";
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

TEST_F(OsLocalEndpoint, AFolderThatOthersMayEnterIsNotUsed) {
  fs::create_directory(folder_);
  for (const mode_t mode : {0701u, 0710u, 0777u, 0704u, 0740u}) {
    ASSERT_EQ(::chmod(folder_.c_str(), mode), 0);
    EXPECT_EQ(Listen("name"), EndpointError::kFailed) << std::oct << mode;
  }
  ASSERT_EQ(::chmod(folder_.c_str(), 0700), 0);
  EXPECT_EQ(Listen("name"), EndpointError::kNone);
}

TEST_F(OsLocalEndpoint, WhatAKilledProcessLeftIsReplaced) {
  fs::create_directory(folder_);
  ASSERT_EQ(::chmod(folder_.c_str(), 0700), 0);
  std::ofstream(folder_ / "name.lock").close();
  // A socket that nobody listens on any more.
  const int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, (folder_ / "name.sock").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(left, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(left);
  EXPECT_EQ(SystemTransport().Connect("name").error, EndpointError::kNobodyListens);
  ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
  EXPECT_TRUE(SystemTransport().Connect("name").value);
}

TEST_F(OsLocalEndpoint, ALockDecidesAndNotTheSocket) {
  fs::create_directory(folder_);
  ASSERT_EQ(::chmod(folder_.c_str(), 0700), 0);
  const std::string path = folder_ / "name.lock";
  const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(Listen("name"), EndpointError::kInUse);
  EXPECT_NE(message_.find("name.lock"), std::string::npos) << message_;
  ::close(lock);
  EXPECT_EQ(Listen("name"), EndpointError::kNone);
}

TEST_F(OsLocalEndpoint, ALinkInTheLocksPlaceIsNotFollowed) {
  fs::create_directory(folder_);
  ASSERT_EQ(::chmod(folder_.c_str(), 0700), 0);
  const fs::path target = directory_.path() / "target";
  fs::create_symlink(target, folder_ / "name.lock");
  EXPECT_EQ(Listen("name"), EndpointError::kFailed);
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(OsLocalEndpoint, WhatCannotBeReplacedIsAFailureAndTheLockIsFree) {
  fs::create_directories(folder_ / "name.sock" / "inside");
  ASSERT_EQ(::chmod(folder_.c_str(), 0700), 0);
  EXPECT_EQ(Listen("name"), EndpointError::kFailed);
  EXPECT_NE(message_.find("name.sock"), std::string::npos) << message_;
  fs::remove_all(folder_ / "name.sock");
  EXPECT_EQ(Listen("name"), EndpointError::kNone);
}

TEST_F(OsLocalEndpoint, OfManyThatWantANameOneHasItAtATime) {
  std::atomic<int> holders{0};
  std::atomic<int> listened{0};
  std::atomic<bool> together{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        auto made = SystemTransport().Listen("name");
        if (!made.value) {
          EXPECT_EQ(made.error, EndpointError::kInUse) << made.message;
          continue;
        }
        if (++holders > 1) together = true;
        ++listened;
        EXPECT_TRUE(SystemTransport().Connect("name").value);
        --holders;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(together);
  EXPECT_GT(listened, 0);
}

}  // namespace
}  // namespace os
