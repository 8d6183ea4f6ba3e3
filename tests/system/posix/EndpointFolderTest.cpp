// The folder in which an endpoint's socket lies.

#include <filesystem>
#include <fstream>
#include <string>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using Endpoint = SystemTest;

TEST_F(Endpoint, WhoseFolderCannotBeMadeIsRefused) {
  std::ofstream(runtime_.endpoints()) << "a file where the folder should be";
  EXPECT_EQ(host_.Start(kEndpoint, {}), TolmLPCFrame::kFrameFailed);
  EXPECT_TRUE(host_.WaitForLog("StartListen failed, error code = 5")) << host_.LogText();
  EXPECT_TRUE(host_.WaitForLog("tolm-lpc is not a directory")) << host_.LogText();
}

TEST_F(Endpoint, WhoseFolderOthersMayEnterIsRefused) {
  std::filesystem::create_directory(runtime_.endpoints());
  std::filesystem::permissions(runtime_.endpoints(), std::filesystem::perms::all);
  EXPECT_EQ(host_.Start(kEndpoint, {}), TolmLPCFrame::kFrameFailed);
  EXPECT_TRUE(host_.WaitForLog("may be entered by other users")) << host_.LogText();
}

TEST_F(Endpoint, IsForItsUserAloneAndIsRemovedAtTheEnd) {
  using std::filesystem::perms;
  StartFrame({});
  const auto socket = runtime_.endpoints() / "frame.sock";
  EXPECT_EQ(std::filesystem::status(runtime_.endpoints()).permissions(), perms::owner_all);
  EXPECT_EQ(std::filesystem::status(socket).permissions(), perms::owner_read | perms::owner_write);
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  EXPECT_TRUE(std::filesystem::is_empty(runtime_.endpoints()));
}

TEST_F(Endpoint, OfAKilledProcessIsThereUntilItIsTakenOver) {
  ChildProcess& other = LaunchHost("serving", {});
  ASSERT_EQ(other.WaitForLine("init "), "init 0") << other.Output();
  other.Kill();
  EXPECT_EQ(other.WaitExit(), kKilled);
  const auto socket = runtime_.endpoints() / (std::string(kEndpoint) + ".sock");
  EXPECT_TRUE(std::filesystem::exists(socket));
  StartFrame({});
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  EXPECT_FALSE(std::filesystem::exists(socket));
}

}  // namespace
}  // namespace tolm::test
