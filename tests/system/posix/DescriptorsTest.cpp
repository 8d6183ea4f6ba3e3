// Descriptors of the frame and of the SDK in a process that also starts others: a host may do so at any
// moment, on any thread, so none of ours may be without its mark for a moment.

#include <TolmPlugin/Plugin.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "SystemTest.h"
#include "support/Rows.h"
#include "support/posix/Lookout.h"

namespace tolm::test {
namespace {

using Descriptors = SystemTest;

TEST_F(Descriptors, OfTheFrameAndOfAPluginAreKeptFromWhatTheHostStarts) {
  Rows rows("inherited");
  Lookout lookout;
  ASSERT_TRUE(TolmLPCFrame::SetLogFile(runtime_.path() / "frame.log", 100'000, 2));
  for (int life = 0; life < 3; ++life) {
    StartFrame({"inside"});
    {
      TolmPlugin::Plugin plugin("inside");
      plugin.Serve("/inside/echo", [](const TolmPlugin::Request& request) { return request.message; });
      ASSERT_TRUE(plugin.Start(kEndpoint));
      ASSERT_TRUE(plugin.WaitReady(static_cast<int>(std::chrono::milliseconds(kPatience).count())));
      ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "inside",
                                     static_cast<std::size_t>(life) + 1));
      for (int i = 0; i < 200; ++i) EXPECT_TRUE(Call(Request("/inside/echo", std::string(1000, 'x'))).came);
    }
    EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  }
  ASSERT_TRUE(TolmLPCFrame::SetLogFile({}, 0, 0));
  const std::set<std::string> found = lookout.Finish();
  EXPECT_GT(lookout.looks(), 20);
  rows.Expect(std::set<std::string>{}, found, "descriptors that a child of the host inherits");
}

}  // namespace
}  // namespace tolm::test
