#include <string>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What a guard asks and reports.
class GuardAnswers : public GuardTest {
 protected:
  static LogLine Received(std::int32_t session_id, const std::string& raw) {
    return Line(3, "WebSocket", "CTolmGuardConnectManager::DealMessage",
                "Succeed  to receive message from tolmguard, session_id:" + std::to_string(session_id) +
                    ", str_raw_msg:" + raw + " ");
  }
};

TEST_F(GuardAnswers, ATextIsLoggedOnceItIsParsed) {
  const std::string raw = Asks("nothing known", "g");
  Endpoint().DealMessage(5, raw);
  EXPECT_THAT(log_.Lines(), ElementsAre(Received(5, raw)));
}

// GetProcessInitStateList.

TEST_F(GuardAnswers, TheInitStatesAreListedInKeyOrder) {
  PlatformInfo info = Plugins({"C", "A"});
  info.plugin_map["B"].plugin_id = "another id";
  List(info);
  Ready("B");
  FromNowOn();
  ScriptedHttpServer::Get().Reset();
  Endpoint().DealMessage(5, Asks("GetProcessInitStateList", "g 1"));
  EXPECT_EQ(OnlySent().socket_id, 5);
  EXPECT_EQ(OnlySent().type, 1);
  EXPECT_TRUE(OnlySent().fin);
  EXPECT_THAT(OnlySent().data,
              JsonIs(R"({"code":"0","msg":"","guid":"g 1","responseData":{"initInfoList":[)"
                     R"({"processName":"A","initState":0},{"processName":"B","initState":1},)"
                     R"({"processName":"C","initState":0}],"total":3}})"));
}

TEST_F(GuardAnswers, WithoutPluginsTheAnswerHasATotalAndNoList) {
  Endpoint().DealMessage(5, Asks("GetProcessInitStateList", "g"));
  EXPECT_THAT(OnlySent().data, JsonIs(R"({"code":"0","msg":"","guid":"g","responseData":{"total":0}})"));
}

TEST_F(GuardAnswers, APluginThatIsNotListedAnyMoreKeepsItsInitState) {
  List(Plugins({"A"}));
  Ready("A");
  List(Plugins({"B"}));
  EXPECT_THAT(Guard().BuildProcessInitStateListResponse("g"),
              JsonIs(R"({"code":"0","msg":"","guid":"g","responseData":{"initInfoList":[)"
                     R"({"processName":"A","initState":1},{"processName":"B","initState":0}],"total":2}})"));
}

// GetMianProcessPath.

TEST_F(GuardAnswers, TheMainProcessPathIsTheHostsOwnUnchanged) {
  PlatformInfo info;
  info.frame_full_path = "C:\\App/My Host.exe";
  List(info);
  Endpoint().DealMessage(5, Asks("GetMianProcessPath", "g"));
  EXPECT_EQ(OnlySent().socket_id, 5);
  EXPECT_THAT(
      OnlySent().data,
      JsonIs(R"({"code":"0","msg":"","guid":"g","responseData":{"mainProcessPath":"C:\\App/My Host.exe"}})"));
}

TEST_F(GuardAnswers, TheRightSpellingOfTheMainProcessPathIsIgnored) {
  Endpoint().DealMessage(5, Asks("GetMainProcessPath", "g"));
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_THAT(log_.Lines(), ElementsAre(Received(5, Asks("GetMainProcessPath", "g"))));
}

// Who is answered.

TEST_F(GuardAnswers, WhoAsksIsAnsweredAndNotTheCurrentConnection) {
  Register(9);
  Endpoint().DealMessage(5, Asks("GetMianProcessPath", "1"));
  Endpoint().DealMessage(6, Asks("GetProcessInitStateList", "2"));
  EXPECT_THAT(Journal::Of("net.Send"), ElementsAre("net.Send 5 answer", "net.Send 6 answer"));
}

TEST_F(GuardAnswers, WhoAsksWithoutAGuidIsAnsweredWithAnEmptyOne) {
  Endpoint().DealMessage(5, R"({"requestData":{"method":"GetProcessInitStateList"}})");
  EXPECT_THAT(OnlySent().data, JsonIs(R"({"code":"0","msg":"","guid":"","responseData":{"total":0}})"));
}

TEST_F(GuardAnswers, AnAnswerThatCannotBeSentIsOnlyLogged) {
  net_.send = 1;
  Endpoint().DealMessage(5, Asks("GetMianProcessPath", "g"));
  EXPECT_EQ(net_.Sent().size(), 1u);
  EXPECT_EQ(log_.LinesOf("SendMessageToTolmGuard").size(), 1u);
}

TEST_F(GuardAnswers, MethodNamesAreComparedExactly) {
  for (const std::string method :
       {"getmianprocesspath", "GetMianProcessPath ", "getProcessInitStateList", "GetProcessInitStateLists",
        "NotifyProcessstate", "", "StartProcess", "NotifyFrameInitState"}) {
    Endpoint().DealMessage(5, Asks(method, "g"));
  }
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
  EXPECT_EQ(log_.Lines().size(), 8u);  // only that they were received
}

// NotifyProcessState.

TEST_F(GuardAnswers, AProcessThatHasEndedIsNotInitialisedAnyMoreAndTheHostIsTold) {
  RegisterHost();
  List(Plugins({"A", "B"}));
  Ready("A");
  Ready("B");
  FromNowOn();
  Endpoint().DealMessage(5, ProcessState(R"("state":0,"processId":"A")"));
  EXPECT_FALSE(Registry().GetPluginInitState("A"));
  EXPECT_TRUE(Registry().GetPluginInitState("B"));
  EXPECT_EQ(host_.Only().LpcMsgType, kLpcMsgPluginUninited);
  LPCData expected;
  expected.src_id = "A";
  EXPECT_EQ(host_.Only().lpc_data, expected);
  EXPECT_THAT(
      LinesOf("CLPCIntegrate::SetPluginInitState"),
      ElementsAre(Info("CLPCIntegrate::SetPluginInitState", "plugin_id[A], is Set Plugin initState [0]"),
                  Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[5]")));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
}

TEST_F(GuardAnswers, OtherStatesChangeNothing) {
  RegisterHost();
  List(Plugins({"A"}));
  Ready("A");
  FromNowOn();
  for (const char* members :
       {R"("processId":"A")", R"("state":-1,"processId":"A")", R"("state":1,"processId":"A")",
        R"("state":"0","processId":"A")", R"("state":null,"processId":"A")", R"("state":[0],"processId":"A")",
        R"("state":0.5,"processId":"A")", R"("state":99999999999,"processId":"A")", ""}) {
    Endpoint().DealMessage(5, ProcessState(members));
  }
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
  EXPECT_EQ(host_.Count(), 0u);
}

TEST_F(GuardAnswers, AnEndedProcessWithoutANameIsToldToTheHostWithoutAName) {
  RegisterHost();
  Endpoint().DealMessage(5, ProcessState(R"("state":0)"));
  Endpoint().DealMessage(5, ProcessState(R"("state":0,"processId":12)"));
  ASSERT_EQ(host_.Count(kLpcMsgPluginUninited), 2u);
  for (const Host::Call& call : host_.Calls()) EXPECT_EQ(call.data.lpc_data.src_id, "");
}

TEST_F(GuardAnswers, TheHostIsToldOfAnUnlistedProcessAndNotOfOneThatWasNotInitialised) {
  RegisterHost();
  List(Plugins({"A"}));
  Endpoint().DealMessage(5, ProcessState(R"("state":0,"processId":"A")"));
  EXPECT_EQ(host_.Count(), 0u);
  Endpoint().DealMessage(5, ProcessState(R"("state":0,"processId":"unlisted")"));
  EXPECT_EQ(host_.Only().lpc_data.src_id, "unlisted");
}

TEST_F(GuardAnswers, AStateReportThatDoesNotParseIsIgnoredSilently) {
  RegisterHost();
  Guard().DealNotifyProcessState("{");
  Guard().DealNotifyProcessState("");
  EXPECT_THAT(log_.Lines().size(), 1u);  // that the host has registered
  EXPECT_EQ(host_.Count(), 0u);
}

}  // namespace
}  // namespace tolm::test
