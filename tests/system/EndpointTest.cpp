// Endpoints that cannot be opened.

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using Endpoint = SystemTest;

TEST_F(Endpoint, InUseByALivingProcessIsRefused) {
  ChildProcess& other = LaunchHost("serving", {});
  ASSERT_EQ(other.WaitForLine("init "), "init 0") << other.Output();
  EXPECT_EQ(host_.Start(kEndpoint, {}), TolmLPCFrame::kFrameFailed);
  EXPECT_TRUE(host_.WaitForLog("cannot listen as [frame]: ")) << host_.LogText();
  EXPECT_TRUE(host_.WaitForLog("is held by a living process")) << host_.LogText();
  EXPECT_TRUE(host_.WaitForLog("StartListen failed, error code = 3")) << host_.LogText();
  EXPECT_TRUE(host_.WaitForLog("LpcStartListen failed,lpc_server_name=frame")) << host_.LogText();
  EXPECT_TRUE(host_.WaitForLog("LpcInit failed")) << host_.LogText();
  other.CloseInput();
  EXPECT_EQ(other.WaitExit(), (Exit{0, false})) << other.Output();
  StartFrame({});  // free again
  EXPECT_TRUE(IsFrameRunning());
}

TEST_F(Endpoint, WithoutAValidNameIsRefused) {
  for (const char* const name : {"", ".hidden", "a/b", "two words", "../x"}) {
    EXPECT_EQ(host_.Start(name, {}), TolmLPCFrame::kFrameFailed) << '"' << name << '"';
  }
  EXPECT_TRUE(host_.WaitForLog("StartListen failed, error code = 4")) << host_.LogText();
  EXPECT_FALSE(std::filesystem::exists(runtime_.endpoints()));
}

TEST_F(Endpoint, MayBeStartedTwiceUnderItsNameAndNotUnderAnother) {
  StartFrame({"a"});
  StartPlugin("a");
  EXPECT_EQ(host_.Start(kEndpoint, {"a"}), TolmLPCFrame::kFrameOk);
  EXPECT_EQ(host_.Start("another", {"a"}), TolmLPCFrame::kFrameFailed);
  EXPECT_TRUE(Call(Request("/a/echo")).came);
}

HostSide* g_host = nullptr;

// Holds up the start between the endpoint and the list of plugins, until a plugin got through or had time to.
void HoldUpInit(int /*level*/, const char* /*tag*/, const char* text, void* /*user*/) {
  if (std::string_view(text).find("CLPCIntegrate::Init]") == std::string_view::npos) return;
  g_host->WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a", 1, std::chrono::milliseconds(300));
}

TEST_F(Endpoint, ThatAPluginReachesBeforeTheStartIsOverKnowsThePluginAllTheSame) {
  ChildProcess& a = LaunchPlugin("a");
  ASSERT_TRUE(a.WaitForLine("waiting for a frame"));
  g_host = &host_;
  TolmLPCFrame::SetLogSink(&HoldUpInit, nullptr);
  StartFrame({"a"});
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginConnected, "a"));
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a"));
  EXPECT_TRUE(Call(Request("/a/echo")).came);
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  EXPECT_TRUE(a.WaitForLine("uninit"));
}

}  // namespace
}  // namespace tolm::test
