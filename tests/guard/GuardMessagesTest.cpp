#include <set>
#include <string>
#include <vector>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What the frame says to the guard, text by text.
class GuardMessages : public GuardTest {
 protected:
  GuardMessages() {
    Register(7);
    FromNowOn();
  }
};

TEST_F(GuardMessages, EveryTextIsOneFinalTextFrameToTheCurrentConnection) {
  Guard().NotifyGuardLPCFrameInit();
  Guard().NotifyFrameInitedFinished("c");
  Guard().SetProcessGuardStateList({{"A", false}});
  Guard().ControlGuardProcess("A", true);
  Guard().NotifyState();
  Guard().NotifyFrameUninit();
  ASSERT_GE(net_.Sent().size(), 6u);
  for (const SentFrame& frame : net_.Sent()) {
    EXPECT_EQ(frame.socket_id, 7) << frame.data;
    EXPECT_EQ(frame.type, Tolm::Net::kWebsocketText) << frame.data;
    EXPECT_TRUE(frame.fin) << frame.data;
  }
}

TEST_F(GuardMessages, EveryTextHasAGuidOfItsOwn) {
  Guard().NotifyFrameInitedFinished("c");
  for (int i = 0; i < 5; ++i) {
    Guard().SetProcessGuardStateList({});
    Guard().ControlGuardProcess("A", true);
    Guard().NotifyState();
    Guard().NotifyFrameUninit();
  }
  std::set<std::string> guids;
  for (const SentFrame& frame : net_.Sent()) guids.insert(GuidOf(frame.data));
  EXPECT_GE(guids.size(), 24u);
  EXPECT_EQ(guids.size(), net_.Sent().size());
  EXPECT_FALSE(guids.contains(""));
}

TEST_F(GuardMessages, TheLatestGuardToRegisterIsTheOneThatIsTold) {
  Register(9);
  Guard().NotifyState();
  EXPECT_EQ(OnlySent().socket_id, 9);
}

TEST_F(GuardMessages, WithoutAGuardTextsGoToConnectionMinusOne) {
  ForgetEverything(Endpoint());
  net_.send = 1;
  Guard().NotifyState();
  EXPECT_EQ(OnlySent().socket_id, -1);
}

// Each message.

TEST_F(GuardMessages, NotifyLPCFrameInitHasGuidAndMethodAndWaitsFiveSeconds) {
  EXPECT_FALSE(Guard().NotifyGuardLPCFrameInit());
  EXPECT_THAT(OnlySent().data, JsonIs(R"({"guid":"*","requestData":{"method":"NotifyLPCFrameInit"}})"));
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 5000"));
}

TEST_F(GuardMessages, NotifyFrameInitStateNamesCommandLineAndPlugins) {
  List(Plugins({"B", "A"}));
  Guard().NotifyFrameInitedFinished("-run \"x y\" C:\\d\xC3\xA4");
  const std::vector<SentFrame> sent = net_.Sent("NotifyFrameInitState");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_THAT(sent[0].data,
              JsonIs("{\"guid\":\"*\",\"requestData\":{\"method\":\"NotifyFrameInitState\",\"initState\":1,"
                     "\"cmdline\":\"-run \\\"x y\\\" C:\\\\d\xC3\xA4\",\"PluginList\":[\"A\",\"B\"]}}"));
}

TEST_F(GuardMessages, NotifyFrameInitStateWithoutCommandLineAndPluginsHasNeitherMember) {
  Guard().NotifyFrameInitedFinished("");
  const std::vector<SentFrame> sent = net_.Sent("NotifyFrameInitState");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_THAT(sent[0].data,
              JsonIs(R"({"guid":"*","requestData":{"method":"NotifyFrameInitState","initState":1}})"));
}

TEST_F(GuardMessages, SetProcessGuardStateListNamesEachProcessInOrderAndTheTotal) {
  EXPECT_FALSE(Guard().SetProcessGuardStateList({{"B", false}, {"A", true}}));
  EXPECT_THAT(OnlySent().data,
              JsonIs(R"({"guid":"*","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[)"
                     R"({"processName":"A","type":1},{"processName":"B","type":0}],"total":2}})"));
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 3000"));
}

TEST_F(GuardMessages, SetProcessGuardStateListWithoutProcessesHasTheTotalAndNoList) {
  EXPECT_FALSE(Guard().SetProcessGuardStateList({}));
  EXPECT_THAT(OnlySent().data,
              JsonIs(R"({"guid":"*","requestData":{"method":"SetProcessGuardStateList","total":0}})"));
}

TEST_F(GuardMessages, SetProcessGuardStateListIsTrueWhenTheGuardHasAnswered) {
  AnswerDirectly();
  EXPECT_TRUE(Guard().SetProcessGuardStateList({}));
  EXPECT_TRUE(Guard().SetProcessGuardStateList({{"A", false}}));
}

TEST_F(GuardMessages, StartProcessAndStopProcessNameTheProcess) {
  Guard().ControlGuardProcess("A \"1\"", true);
  Guard().ControlGuardProcess("B", false);
  ASSERT_EQ(net_.Sent().size(), 2u);
  EXPECT_THAT(net_.Sent()[0].data,
              JsonIs(R"({"guid":"*","requestData":{"method":"StartProcess","processName":"A \"1\""}})"));
  EXPECT_THAT(net_.Sent()[1].data,
              JsonIs(R"({"guid":"*","requestData":{"method":"StopProcess","processName":"B"}})"));
}

TEST_F(GuardMessages, NotifyStateHasTypeOne) {
  Guard().NotifyState();
  EXPECT_THAT(OnlySent().data, JsonIs(R"({"guid":"*","requestData":{"method":"NotifyState","type":1}})"));
}

TEST_F(GuardMessages, NotifyFrameUninitHasGuidAndMethodAndSaysWhetherItWasHandedOver) {
  EXPECT_TRUE(Guard().NotifyFrameUninit());
  EXPECT_THAT(OnlySent().data, JsonIs(R"({"guid":"*","requestData":{"method":"NotifyFrameUninit"}})"));
  net_.send = 4;
  EXPECT_FALSE(Guard().NotifyFrameUninit());
}

TEST_F(GuardMessages, NotificationsAreNotWaitedFor) {
  Guard().ControlGuardProcess("A", true);
  Guard().NotifyState();
  Guard().NotifyFrameUninit();
  EXPECT_THAT(Journal::Of("wait"), IsEmpty());
  EXPECT_THAT(Waiters(Endpoint()), IsEmpty());
}

// What leads to them.

TEST_F(GuardMessages, StartingAPluginNamesItByItsRecordsPluginId) {
  PlatformInfo info;
  info.plugin_map["key"].plugin_id = "the id";
  List(info);
  FromNowOn();
  TolmLPCFrameStartPlugin("key");
  EXPECT_THAT(OnlySent().data,
              JsonIs(R"({"guid":"*","requestData":{"method":"StartProcess","processName":"the id"}})"));
  EXPECT_TRUE(log_.Has(Info("TolmLPCFrameStartPlugin", "TolmLPCFrameStartPlugin plugin_id[key]")));
}

TEST_F(GuardMessages, StartingAnUnknownPluginTellsTheGuardNothing) {
  List(Plugins({"A"}));
  TolmLPCFrameStartPlugin("a");
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_TRUE(log_.Has(Error("CLPCIntegrate::GetPluginInfoByID", "find plugin_data failed, [a]")));
}

TEST_F(GuardMessages, EveryInitFinishIsToldAlsoARepeatedOneAndThatOfAnUnlistedPlugin) {
  RegisterHost();
  List(Plugins({"A"}));
  FromNowOn();
  Ready("A");
  Ready("A");
  Ready("unlisted");
  EXPECT_EQ(net_.Sent("NotifyState").size(), 3u);
  EXPECT_EQ(net_.Sent().size(), 3u);
  EXPECT_TRUE(HappenedInOrder({"host 4 A", "net.Send 7 NotifyState", "host 4 A", "net.Send 7 NotifyState",
                               "host 4 unlisted", "net.Send 7 NotifyState"}));
}

TEST_F(GuardMessages, TheRegistryIsUpToDateWhenTheGuardIsTold) {
  List(Plugins({"A"}));
  bool inited = false;
  net_.send = [&](const SentFrame&) {
    inited = Registry().GetPluginInitState("A");
    return 0;
  };
  Ready("A");
  EXPECT_TRUE(inited);
}

TEST_F(GuardMessages, OtherPluginEventsAreNotTold) {
  RegisterHost();
  List(Plugins({"A"}));
  Method(Connected("A"));
  Method(Disconnected("A"));
  Method(UninitFinish("A"));
  Method(Message().From("A").Body(R"({"method":"serverListenFailed"})"));
  Registry().SetPluginInitState(true, "A");
  EXPECT_THAT(net_.Sent(), IsEmpty());
}

// Sending.

TEST_F(GuardMessages, ASendIsLoggedWithItsText) {
  EXPECT_TRUE(Endpoint().SendMessageToTolmGuard(3, Tolm::Net::kWebsocketText, "hello", 5, true));
  EXPECT_THAT(log_.Lines(), ElementsAre(Info("CTolmGuardConnectManager::SendMessageToTolmGuard",
                                             "WebsocketServerSend success send_data = hello")));
  EXPECT_EQ(OnlySent().socket_id, 3);
}

TEST_F(GuardMessages, ASendThatFailsIsLoggedWithItsNumber) {
  net_.send = 4;
  EXPECT_FALSE(Endpoint().SendMessageToTolmGuard(-1, Tolm::Net::kWebsocketText, "hello", 5, false));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Error("CTolmGuardConnectManager::SendMessageToTolmGuard",
                                "WebsocketServerSend fail error code = 4,data=hello,session_id=-1")));
  EXPECT_FALSE(OnlySent().fin);
}

TEST_F(GuardMessages, ASendOfNothingFailsWithoutACall) {
  const LogLine line =
      Line(5, "WebSocket", "CTolmGuardConnectManager::SendMessageToTolmGuard", "SendMessage  data_len = 0");
  EXPECT_FALSE(Endpoint().SendMessageToTolmGuard(7, Tolm::Net::kWebsocketText, "x", 0, true));
  EXPECT_FALSE(Endpoint().SendMessageToTolmGuard(7, Tolm::Net::kWebsocketText, nullptr, 0, false));
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

TEST_F(GuardMessages, OfATextThatIsNotTerminatedOnlyItsLengthIsSentAndLogged) {
  const char text[] = {'a', 'b', 'c', 'd'};
  EXPECT_TRUE(Endpoint().SendMessageToTolmGuard(7, Tolm::Net::kWebsocketText, text, 2, true));
  EXPECT_EQ(OnlySent().data, "ab");
  EXPECT_TRUE(log_.Has(Info("CTolmGuardConnectManager::SendMessageToTolmGuard",
                            "WebsocketServerSend success send_data = ab")));
}

}  // namespace
}  // namespace tolm::test
