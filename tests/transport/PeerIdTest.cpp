// Who may have which id, and who keeps it.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FrameEnd.h"
#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "support/Wait.h"
#include "wire/Frame.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using Strings = std::vector<std::string>;

TEST_P(Connecting, ALivingPeerKeepsItsId) {
  lpc::Options options;
  options.ping_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd holder(transport(), "alpha");
  ASSERT_TRUE(holder.Meet(frame));
  for (int i = 0; i < 5; ++i) {
    RawPeer other(transport());
    ASSERT_TRUE(other.Write(HelloBytes("alpha")));
    const auto reason = other.ReadReason();
    ASSERT_TRUE(reason);
    EXPECT_EQ(reason->code, lpc::kRefused);
    EXPECT_EQ(reason->reason, "the id [alpha] is in use");
  }
  EXPECT_EQ(frame.StatusesOf("alpha"), Strings{"connected"});
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
  EXPECT_EQ(frame.statistics().refused, 5u);
}

TEST_P(Connecting, AHolderThatDoesNotAnswerLosesItsId) {
  lpc::Options options;
  options.ping_ms = 50;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer holder(transport(), frame, "alpha");
  ASSERT_TRUE(holder.connected());
  PluginEnd newcomer(transport(), "alpha");
  ASSERT_TRUE(WaitFor([&] { return frame.StatusesOf("alpha").size() == 3; }));
  EXPECT_EQ(frame.StatusesOf("alpha"), (Strings{"connected", "disconnected", "connected"}));
  EXPECT_TRUE(newcomer.WaitConnected());
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
  EXPECT_TRUE(holder.ReadUntil(FrameType::kPing));
  EXPECT_TRUE(holder.WaitEnd());
  EXPECT_EQ(frame.statistics().cut_off, 1u);
}

TEST_P(Connecting, AHolderWhoseEventIsStillBeingHandledKeepsItsId) {
  Gate gate;
  lpc::Options options;
  options.ping_ms = 3000;
  FrameEnd frame(transport(), options, [&gate](FrameEnd&, const tag_LPCCallBackData&) { gate.Wait(); });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd holder(transport(), "alpha");
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  RawPeer other(transport());
  ASSERT_TRUE(other.Write(HelloBytes("alpha")));
  const auto reason = other.ReadReason();
  ASSERT_TRUE(reason);
  EXPECT_EQ(reason->reason, "the id [alpha] is in use");
  gate.Open();
  EXPECT_EQ(frame.StatusesOf("alpha"), Strings{"connected"});
}

TEST_P(Connecting, SeveralWhoWantTheIdOfADeadHolderGetItOneAtATime) {
  lpc::Options options;
  options.ping_ms = 200;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer holder(transport(), frame, "alpha");
  std::vector<std::unique_ptr<PluginEnd>> wanting;
  for (int i = 0; i < 4; ++i) wanting.push_back(std::make_unique<PluginEnd>(transport(), "alpha"));
  ASSERT_TRUE(WaitFor([&] { return frame.StatusesOf("alpha").size() == 3; }));
  // Every loser is told sooner or later, and the winner stays.
  ASSERT_TRUE(WaitFor([&] {
    return std::count_if(wanting.begin(), wanting.end(), [](const auto& plugin) {
             const auto events = plugin->Events();
             return std::any_of(events.begin(), events.end(),
                                [](const auto& e) { return e.error == lpc::kRefused; });
           }) == 3;
  }));
  EXPECT_EQ(std::count_if(wanting.begin(), wanting.end(),
                          [](const auto& plugin) { return plugin->client().IsConnected(); }),
            1);
  EXPECT_EQ(frame.StatusesOf("alpha").back(), "connected");
}

TEST_P(Connecting, APluginWithAnImpossibleIdOrEndpointDoesNotStart) {
  const auto start = [&](const std::string& id, const std::string& endpoint) {
    lpcclient::Settings settings;
    settings.id = id;
    settings.endpoint = endpoint;
    settings.transport = &transport();
    lpcclient::CLpcClient client(settings);
    const bool started = client.Start();
    return started ? static_cast<int>(lpc::kOk) : lpcclient::GetLPCLastError();
  };
  EXPECT_EQ(start("", kEndpoint), lpc::kRefused);
  EXPECT_EQ(start("0", kEndpoint), lpc::kRefused);
  EXPECT_EQ(start("a\nb", kEndpoint), lpc::kRefused);
  EXPECT_EQ(start(std::string(256, 'a'), kEndpoint), lpc::kRefused);
  EXPECT_EQ(start("alpha", ""), lpc::kEndpointNameInvalid);
  EXPECT_EQ(start("alpha", "../frame"), lpc::kEndpointNameInvalid);
  EXPECT_EQ(start(std::string(255, 'a'), kEndpoint), lpc::kOk);
}

}  // namespace
}  // namespace tolm::test
