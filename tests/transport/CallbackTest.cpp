// Callbacks may block, wait for their own peers and throw; there is always a thread for the next one.

#include <atomic>
#include <stdexcept>
#include <string>

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

// The body counts down; each level asks the other side before it answers.
TEST_P(Messaging, CallbacksAskEachOtherManyLevelsDeep) {
  FrameEnd frame(transport(), {}, [](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (!data.need_reply) return;
    const int level = std::stoi(data.body);
    std::string below = "bottom";
    if (level > 0 && self.Ask(data.src_id, std::to_string(level - 1), &below) != lpc::kOk) below = "error";
    self.Answer(data, below + "<" + data.body);
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd& self, const tag_LPCCallBackData& data) {
    const int level = std::stoi(data.body);
    std::string below = "bottom";
    if (level > 0 && self.Ask(std::to_string(level - 1), &below) != lpc::kOk) below = "error";
    self.Answer(data, below + "<" + data.body);
  });
  ASSERT_TRUE(plugin.Meet(frame));
  std::string answer;
  ASSERT_EQ(plugin.Ask("9", &answer), lpc::kOk);
  EXPECT_EQ(answer, "bottom<0<1<2<3<4<5<6<7<8<9");
  ASSERT_EQ(frame.Ask("alpha", "8", &answer), lpc::kOk);
  EXPECT_EQ(answer, "bottom<0<1<2<3<4<5<6<7<8");
}

TEST_P(Messaging, TwentyCallbacksOfOneBatchMayBlockAtTheSameTime) {
  constexpr int kCount = 20;
  Gate gate;
  FrameEnd frame(transport(), {}, [&gate](FrameEnd&, const tag_LPCCallBackData& data) {
    if (data.body == "block") gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "batch");
  ASSERT_TRUE(raw.connected());
  std::string batch;
  for (int i = 0; i < kCount; ++i) batch += FrameBytes(FrameType::kNotify, MessageBytes("block"));
  ASSERT_TRUE(raw.Write(batch));
  EXPECT_TRUE(WaitFor([&] { return gate.Waiting() == kCount; })) << gate.Waiting();
  // Somebody still listens: another peer connects and is asked.
  PluginEnd plugin(transport(), "alpha");
  EXPECT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
  gate.Open();
}

TEST_P(Messaging, CallbacksThatWaitForTheirPeerAllAtOnceGetTheirAnswers) {
  constexpr int kCount = 20;
  std::atomic<int> answered{0};
  FrameEnd frame(transport(), {}, [&answered](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (!FrameEnd::StatusIn(data).empty()) return;
    std::string answer;
    if (self.Ask(data.src_id, data.body, &answer) == lpc::kOk && answer == data.body) ++answered;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  Gate gate;
  PluginEnd plugin(transport(), "alpha", [&gate](PluginEnd& self, const tag_LPCCallBackData& data) {
    gate.Wait();
    self.Answer(data, data.body);
  });
  ASSERT_TRUE(plugin.Meet(frame));
  for (int i = 0; i < kCount; ++i) ASSERT_TRUE(plugin.client().Notify({"0", {}, std::to_string(i)}));
  EXPECT_TRUE(WaitFor([&] { return gate.Waiting() == kCount; })) << gate.Waiting();
  gate.Open();
  EXPECT_TRUE(WaitFor([&] { return answered == kCount; }));
}

TEST_P(Messaging, ACallbackMayWaitForThePeerWhoseConnectionItIsToldOf) {
  std::string answer;
  std::atomic<int> error{-1};
  FrameEnd frame(transport(), {}, [&](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data) == "connected") error = self.Ask(data.src_id, "who are you", &answer);
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(WaitFor([&] { return error >= 0; }));
  EXPECT_EQ(error, lpc::kOk);
  EXPECT_EQ(answer, "who are you");
}

TEST_P(Messaging, ACallbackThatThrowsHarmsNobody) {
  FrameEnd frame(transport(), {}, [](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (!FrameEnd::StatusIn(data).empty()) throw std::runtime_error("thrown by a test");
    if (data.body == "throw") throw 5;
    FrameEnd::Echo(self, data);
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(plugin.client().Notify({"0", {}, "throw"}));
  std::string answer;
  EXPECT_EQ(plugin.Ask("still there", &answer), lpc::kOk);
  EXPECT_EQ(answer, "still there");
  plugin.Stop();
  EXPECT_TRUE(frame.WaitStatus("alpha", "disconnected"));
}

}  // namespace
}  // namespace tolm::test
