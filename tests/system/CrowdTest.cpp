// Many plugins, and those that misbehave beside others.

#include <future>
#include <string>
#include <vector>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;

using Crowd = SystemTest;

TEST_F(Crowd, Of64PluginsThatStartAtOnceIsReadyAndAnswers) {
  std::vector<std::string> ids;
  for (int i = 0; i < 64; ++i) ids.push_back("plugin" + std::to_string(i));
  StartFrame(ids);
  for (const std::string& id : ids) LaunchPlugin(id);
  for (const std::string& id : ids) {
    EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, id, 1, 2 * kPatience)) << id;
    EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginConnected, id)) << id;
  }
  EXPECT_TRUE(host_.WaitForLog("All LPC plugins have inited finish"));
  std::vector<std::future<Answer>> calls;
  for (const std::string& id : ids) {
    calls.push_back(std::async(std::launch::async, [id] { return Call(Request("/" + id + "/echo", id)); }));
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const Answer answer = calls[i].get();
    EXPECT_TRUE(answer.came) << ids[i] << ", error " << answer.error;
    EXPECT_EQ(answer.data.body, ids[i]);
  }
}

TEST_F(Crowd, HearsTheOthersBesideAPluginThatFloods) {
  StartFrame({"a", "b"});
  StartPlugin("b");
  TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogError);
  ChildProcess& a = StartPlugin("a", "flooding");
  ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPush, "a", 100));
  host_.KeepNoMessages();
  for (int i = 0; i < 100; ++i) {
    const Answer answer = Call(Request("/b/echo", "hello"), 5s);
    ASSERT_TRUE(answer.came) << "call " << i << ", error " << answer.error;
  }
  KillPlugin(a, "a");
}

// The transport's own limit for such a peer is ten seconds.
using LongCrowd = SystemTest;

TEST_F(LongCrowd, HearsTheOthersBesideAPluginThatTakesNothingAndCutsItOff) {
  StartFrame({"a", "b"});
  ChildProcess& a = StartPlugin("a");
  StartPlugin("b");
  TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogError);
  a.Freeze();
  const std::string body(1 << 20, 'x');
  int taken = 0;
  while (Send(Notification("/a/hear", body))) ASSERT_LT(++taken, 1000) << "the queue has no end";
  EXPECT_EQ(TolmLPCFrame::GetLPCLastError(), kQueueFull);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(Call(Request("/b/echo", "hello"), 5s).came) << "call " << i;
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginDisconnected, "a"));
  EXPECT_TRUE(Call(Request("/b/echo", "hello"), 5s).came);

  a.Thaw();
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a", 2));
  EXPECT_TRUE(Call(Request("/a/echo")).came);
}

}  // namespace
}  // namespace tolm::test
