// What peers do to the pipes of a frame.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "support/LogCapture.h"
#include "support/OwnResources.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

class PipePeers : public testing::Test {
 protected:
  const RuntimeDirectory directory_;
  os::LocalTransport& transport_ = os::SystemTransport();
};

TEST_F(PipePeers, ThatDieInTheirHandshakeLeaveNothingBehind) {
  FrameEnd frame(transport_);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  const std::string hello = HelloBytes("hasty");
  const auto knock = [&](std::size_t bytes) {
    RawPeer peer(transport_);
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.Write(hello.substr(0, bytes)));
  };
  const auto serves = [&](const std::string& id) {
    PluginEnd plugin(transport_, id);
    EXPECT_TRUE(plugin.Meet(frame));
    EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
  };
  for (int i = 0; i < 10; ++i) knock(static_cast<std::size_t>(i));
  serves("before");
  ASSERT_TRUE(WaitFor([&] { return frame.statistics().peers == 0; }));
  const long descriptors = OpenDescriptors();
  ASSERT_GT(descriptors, 0);
  for (std::size_t i = 0; i < 300; ++i) knock(i % hello.size());
  serves("afterwards");
  EXPECT_TRUE(frame.StatusesOf("hasty").empty()) << "nobody has said a whole hello";
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= descriptors + kDescriptorsOfLocks; }))
      << OpenDescriptors() << " instead of " << descriptors;
}

TEST_F(PipePeers, AreServedByTheFrameThatHasTheName) {
  FrameEnd frame(transport_);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  LogCapture log(5);
  FrameEnd second(transport_);
  EXPECT_EQ(second.Listen(), lpc::kEndpointInUse);
  std::vector<std::unique_ptr<PluginEnd>> plugins;
  for (int i = 0; i < 20; ++i) {
    plugins.push_back(std::make_unique<PluginEnd>(transport_, "plugin " + std::to_string(i)));
  }
  for (auto& plugin : plugins) EXPECT_TRUE(plugin->Meet(frame)) << plugin->id();
  EXPECT_TRUE(second.Records().empty());
  plugins.clear();
  frame.Stop();
  EXPECT_EQ(second.Listen(), lpc::kOk) << "the name is free again";
}

}  // namespace
}  // namespace tolm::test
