#include <stdexcept>
#include <string>

#include "FrameScript.h"
#include "RegistryInside.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kAllInited[] = "log All LPC plugins have inited finish";

class FrameMethods : public FrameTest {
 protected:
  FrameMethods() {
    RegisterHost();
    FromNowOn();
  }

  void ListQuietly(const PlatformInfo& info) {
    List(info);
    FromNowOn();
  }

  static int StateOf(const std::string& key) { return Registry().GetPluginData().at(key).connect_state; }

  static LogLine PluginFrame(const std::string& text) {
    return Line(3, "platform.PluginFrame", "CLPCIntegrate::MethodCallBackEIT", text);
  }
  static LogLine InfoOf(const std::string& text) { return Info("CLPCIntegrate::MethodCallBackEIT", text); }
  static LogLine Status(const std::string& text) { return Info("CLPCIntegrate::PluginStatusChanged", text); }
};

// InitFinish.

TEST_F(FrameMethods, AnInitFinishIsLoggedThenToldTheHostAndThenTheGuard) {
  ListQuietly(Plugins({"A"}));
  Method(InitFinish("A"));
  EXPECT_THAT(LinesOf("::MethodCallBackEIT"),
              ElementsAre(InfoOf("[/method:InitFinish], plugin_id[A]"), InfoOf("plugin_id[A], is InitFinish"),
                          PluginFrame("All LPC plugins have inited finish"),
                          PluginFrame("Plugin Init end. [A] consume_time[12]"),
                          Line(3, "platform.ServiceManage", "CLPCIntegrate::MethodCallBackEIT",
                               "[A] Init OK. Take up Time is [12 ms].\n")));
  EXPECT_TRUE(
      HappenedInOrder({"log [A] Init OK. Take up Time is [12 ms].\n", "host 4 A", "guard.NotifyState"}));
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
}

TEST_F(FrameMethods, AnInitFinishReachesTheHostAsTheWholeMessage) {
  ListQuietly(Plugins({"A"}));
  Method(InitFinish("A").Param("method", "m").Param("schema", "s").WantsReply(9));
  LPCData expected;
  expected.src_id = "A";
  expected.dst_id = "0";
  expected.method = "m";
  expected.schema = "s";
  expected.msg_id = 9;
  expected.body = static_cast<const tag_LPCCallBackData&>(InitFinish("A")).body;
  EXPECT_EQ(host_.Only().LpcMsgType, 4);
  EXPECT_TRUE(host_.Only().lpc_data == expected);
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
}

TEST_F(FrameMethods, ThatAllPluginsHaveInitialisedIsLoggedWithTheLastAndEveryTimeAfterIt) {
  ListQuietly(Plugins({"A", "B", "C"}));
  Ready("A");
  Ready("B");
  EXPECT_EQ(Journal::Count(kAllInited), 0u);
  Ready("C");
  EXPECT_EQ(Journal::Count(kAllInited), 1u);
  Ready("A");
  EXPECT_EQ(Journal::Count(kAllInited), 2u);
  EXPECT_EQ(log_.CountOf(InfoOf("plugin_id[A], is InitFinish")), 2u);
  EXPECT_EQ(Journal::Count("guard.NotifyState"), 4u);
  EXPECT_EQ(host_.Count(4), 4u);
}

TEST_F(FrameMethods, APluginThatInitialisesTwiceCountsOnce) {
  ListQuietly(Plugins({"A", "B"}));
  Ready("A");
  Ready("A");
  EXPECT_EQ(Journal::Count(kAllInited), 0u);
}

TEST_F(FrameMethods, WithoutListedPluginsTheFirstInitFinishOfAnybodyMeansAll) {
  ListQuietly(Plugins({}));
  Ready("anybody");
  EXPECT_THAT(LinesOf("::MethodCallBackEIT"),
              ElementsAre(InfoOf("[/method:InitFinish], plugin_id[anybody]"),
                          PluginFrame("All LPC plugins have inited finish"),
                          PluginFrame("Plugin Init end. [anybody] consume_time[12]"),
                          Line(3, "platform.ServiceManage", "CLPCIntegrate::MethodCallBackEIT",
                               "[anybody] Init OK. Take up Time is [12 ms].\n")));
}

TEST_F(FrameMethods, AnUnlistedPluginThatInitialisesChangesNothingButHostAndGuardAreTold) {
  ListQuietly(Plugins({"A"}));
  Ready("nobody");
  EXPECT_FALSE(Registry().GetPluginInitState("nobody"));
  EXPECT_THAT(Registry().GetPluginInitStates(), ElementsAre(Pair("A", false)));
  EXPECT_FALSE(log_.Has(InfoOf("plugin_id[nobody], is InitFinish")));
  EXPECT_THAT(Journal::Of("host"), ElementsAre("host 4 nobody"));
  EXPECT_THAT(Journal::Of("guard"), ElementsAre("guard.NotifyState"));
}

TEST_F(FrameMethods, AnUnlistedPluginThatInitialisesAfterAllOthersRepeatsTheAllLine) {
  ListQuietly(Plugins({"A"}));
  Ready("A");
  Ready("nobody");
  EXPECT_EQ(Journal::Count(kAllInited), 2u);
}

TEST_F(FrameMethods, AnInitFinishWithoutItsTimeIsLoggedWithMinusOne) {
  for (const char* body : {R"({"method":"InitFinish"})", R"({"method":"InitFinish","Data":{}})",
                           R"({"method":"InitFinish","Data":{"InitCostTime":"12"}})",
                           R"({"method":"InitFinish","InitCostTime":12})"}) {
    FromNowOn();
    Method(Message().From("A").Body(body));
    EXPECT_TRUE(log_.Has(PluginFrame("Plugin Init end. [A] consume_time[-1]"))) << body;
    EXPECT_TRUE(log_.Has(Line(3, "platform.ServiceManage", "CLPCIntegrate::MethodCallBackEIT",
                              "[A] Init OK. Take up Time is [-1 ms].\n")))
        << body;
  }
}

TEST_F(FrameMethods, AfterAHostThatThrowsTheGuardIsStillTold) {
  host_.answer = [](const FrameCallBackData&) -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(Ready("A"));
  EXPECT_EQ(Journal::Count("guard.NotifyState"), 1u);
}

TEST_F(FrameMethods, HostAndGuardAreToldWithNoLockHeld) {
  ListQuietly(Plugins({"A"}));
  const auto use_the_registry = [] {
    Registry().SetPluginInitState(false, "A");
    Registry().SetPluginData(Plugins({"A"}));
    Registry().PluginURLRegister(Registration("A", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/x"}]}})"));
  };
  host_.answer = [&](const FrameCallBackData& data) {
    if (data.LpcMsgType != 5) use_the_registry();
    return true;
  };
  guard_.notify_state = use_the_registry;
  Ready("A");
  Method(Connected("A"));
  Method(Disconnected("A"));
  EXPECT_EQ(host_.Count(4) + host_.Count(2) + host_.Count(3), 3u);
}

// UninitFinish.

TEST_F(FrameMethods, AnUninitFinishIsLoggedTwiceWithATickEach) {
  Method(UninitFinish("A"));
  EXPECT_THAT(LinesOf("::MethodCallBackEIT"),
              ElementsAre(PluginFrame("[/method:Uninit], uninit suceessfully, plugin_id[A], time [1000]"),
                          InfoOf("[/method:Uninit], uninit suceessfully, plugin_id[A], time [1001]")));
  EXPECT_THAT(Journal::Of("host"), IsEmpty());
  EXPECT_THAT(Journal::Of("guard"), IsEmpty());
  EXPECT_THAT(Journal::Of("lpc"), IsEmpty());
}

TEST_F(FrameMethods, AnUninitFinishRemovesTheFirstOccurrenceOnly) {
  ListQuietly(Plugins({"A", "B"}));
  Method(Connected("A"));
  Method(Connected("B"));
  Registry().CloseAllComponents();
  Registry().CloseAllComponents();
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("A", "B", "A", "B"));
  Method(UninitFinish("A"));
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("B", "A", "B"));
  Method(UninitFinish("C"));
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("B", "A", "B"));
}

TEST_F(FrameMethods, AnUninitFinishKeepsTheInitFlag) {
  ListQuietly(Plugins({"A"}));
  Ready("A");
  Method(UninitFinish("A"));
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
}

// serverListenFailed and everything else.

TEST_F(FrameMethods, AFailedListenIsOnlyLogged) {
  ListQuietly(Plugins({"A"}));
  Method(Message().From("A").Body(R"({"method":"serverListenFailed","errorCode":"5","errorModule":"M"})"));
  EXPECT_THAT(log_.Lines(), ElementsAre(InfoOf("[/method:serverListenFailed], plugin_id[A]")));
  EXPECT_THAT(Journal::Entries(), SizeIs(1));
  EXPECT_FALSE(Registry().GetPluginInitState("A"));
  EXPECT_EQ(StateOf("A"), 0);
}

TEST_F(FrameMethods, AnyOtherMethodIsInvalid) {
  for (const char* body : {"", "{}", "not json", R"({"method":""})", R"({"method":"initfinish"})",
                           R"({"method":"InitFinish "})", R"({"method":5})", R"({"Method":"InitFinish"})",
                           R"({"method":"Uninit"})", R"({"method":"closeConnection"})", "[]", "null"}) {
    FromNowOn();
    Method(Message().From("A").Body(body).Param("method", "InitFinish"));
    EXPECT_THAT(log_.Lines(), ElementsAre(Error("CLPCIntegrate::MethodCallBackEIT", "method is invalid")))
        << body;
    EXPECT_THAT(Journal::Entries(), SizeIs(1)) << body;
  }
}

TEST_F(FrameMethods, AMethodMessageThatWantsAReplyGetsNone) {
  Method(InitFinish("A").WantsReply(3));
  Method(UninitFinish("A").WantsReply(3));
  Method(Message().From("A").Body("{}").WantsReply(3));
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
}

// connectionStatusChanged.

TEST_F(FrameMethods, AConnectionIsStoredLoggedAndToldTheHost) {
  ListQuietly(Plugins({"A", "B"}));
  Method(Connected("A"));
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[A], [Connected]"),
                          Status("PluginStatusChanged plugin_id[A] is connect")));
  EXPECT_TRUE(HappenedInOrder({"log PluginStatusChanged plugin_id[A] is connect", "host 2 A"}));
  EXPECT_EQ(StateOf("A"), 1);
  EXPECT_EQ(StateOf("B"), 0);
  EXPECT_THAT(Journal::Of("guard"), IsEmpty());
}

TEST_F(FrameMethods, ADisconnectionIsStoredLoggedAndToldTheHost) {
  ListQuietly(Plugins({"A"}));
  Method(Connected("A"));
  FromNowOn();
  Method(Disconnected("A"));
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[A], [Disconnected]"),
                          Status("PluginStatusChanged plugin_id[A] is Disconnected")));
  EXPECT_TRUE(HappenedInOrder({"log PluginStatusChanged plugin_id[A] is Disconnected", "host 3 A"}));
  EXPECT_EQ(StateOf("A"), 0);
  EXPECT_THAT(Journal::Of("guard"), IsEmpty());
}

TEST_F(FrameMethods, AStatusReachesTheHostAsTheMessageWithTheComponentAsItsSource) {
  const auto told = [this](const std::string& status) {
    FromNowOn();
    Method(
        Message()
            .From("transport")
            .Param("schema", "s")
            .WantsReply(4)
            .Body(R"({"method":"connectionStatusChanged","componentID":"A","status":")" + status + R"("})"));
    return host_.Only();
  };
  LPCData expected;
  expected.src_id = "A";
  expected.dst_id = "0";
  expected.schema = "s";
  expected.msg_id = 4;
  expected.body = R"({"method":"connectionStatusChanged","componentID":"A","status":"connected"})";
  FrameCallBackData data = told("connected");
  EXPECT_EQ(data.LpcMsgType, 2);
  EXPECT_TRUE(data.lpc_data == expected);
  expected.body = R"({"method":"connectionStatusChanged","componentID":"A","status":"disconnected"})";
  data = told("disconnected");
  EXPECT_EQ(data.LpcMsgType, 3);
  EXPECT_TRUE(data.lpc_data == expected);
}

TEST_F(FrameMethods, TheConnectionOfAnUnlistedComponentIsToldAndThenLoggedAsAnError) {
  ListQuietly(Plugins({"A"}));
  Method(Connected("nobody"));
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[nobody], [Connected]"),
                          Error("CLPCIntegrate::PluginStatusChanged", "has no this plugin id:nobody")));
  EXPECT_TRUE(HappenedInOrder({"host 2 nobody", "log has no this plugin id:nobody"}));
}

TEST_F(FrameMethods, TheDisconnectionOfAnUnlistedComponentIsToldWithoutAnErrorLine) {
  ListQuietly(Plugins({"A"}));
  Method(Disconnected("nobody"));
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[nobody], [Disconnected]")));
  EXPECT_THAT(Journal::Of("host"), ElementsAre("host 3 nobody"));
}

TEST_F(FrameMethods, AComponentIsFoundByItsKeyAndLoggedByItsKey) {
  PlatformInfo info;
  info.plugin_map["key"].plugin_id = "id";
  ListQuietly(info);
  Method(Connected("key"));
  EXPECT_EQ(StateOf("key"), 1);
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[key], [Connected]"),
                          Status("PluginStatusChanged plugin_id[key] is connect")));
  Method(Disconnected("id"));
  EXPECT_EQ(StateOf("key"), 1);
}

TEST_F(FrameMethods, AComponentWhoseRecordHasNoIdCountsAsConnectedAndAsUnknown) {
  PlatformInfo info;
  info.plugin_map["key"];
  ListQuietly(info);
  Method(Connected("key"));
  EXPECT_EQ(StateOf("key"), 1);
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[key], [Connected]"),
                          Status("PluginStatusChanged plugin_id[key] is connect"),
                          Error("CLPCIntegrate::PluginStatusChanged", "has no this plugin id:key")));
}

TEST_F(FrameMethods, AStatusWithoutAComponentIsThatOfTheEmptyId) {
  Method(Message().From("A").Body(R"({"method":"connectionStatusChanged","status":"connected"})"));
  EXPECT_THAT(LinesOf("::PluginStatusChanged"),
              ElementsAre(Status("[/method:connectionStatusChanged], plugin_id[], [Connected]"),
                          Error("CLPCIntegrate::PluginStatusChanged", "has no this plugin id:")));
  EXPECT_THAT(Journal::Of("host"), ElementsAre("host 2 "));
}

TEST_F(FrameMethods, AnyOtherStatusIsIgnored) {
  ListQuietly(Plugins({"A"}));
  for (const char* status : {R"("Connected")", R"("DISCONNECTED")", R"("")", "null", "1"}) {
    Method(Message().From("A").Body(R"({"method":"connectionStatusChanged","componentID":"A","status":)" +
                                    std::string(status) + "}"));
  }
  Method(Message().From("A").Body(R"({"method":"connectionStatusChanged","componentID":"A"})"));
  EXPECT_THAT(Journal::Entries(), IsEmpty());
  EXPECT_EQ(StateOf("A"), 0);
}

TEST_F(FrameMethods, ADisconnectionChangesNoFlagAndNoUrl) {
  ListQuietly(Plugins({"A"}));
  Serve("A", "/x");
  Method(Connected("A"));
  Ready("A");
  Method(Disconnected("A"));
  std::string id;
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
  EXPECT_TRUE(Registry().FindDstIdByUrl(id, "/x"));
  FromNowOn();
  Method(Connected("A"));
  Ready("A");
  EXPECT_EQ(Journal::Count(kAllInited), 1u);
}

TEST_F(FrameMethods, APluginsLifeReachesTheHostThroughTheTransport) {
  Start(Plugins({"A"}));
  transport_.Deliver(Connected("A"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count(2) == 1; }));
  transport_.Deliver(InitFinish("A"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count(4) == 1; }));
  transport_.Deliver(Disconnected("A"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count(3) == 1; }));
  EXPECT_EQ(StateOf("A"), 0);
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
}

// Tasks of one pool may overtake each other.

TEST_F(FrameMethods, OfTwoWordsOnAConnectionTheLaterArrivalStays) {
  List(Plugins({"A"}));
  const std::uint64_t first = CLPCIntegrate::NextArrival();
  const std::uint64_t second = CLPCIntegrate::NextArrival();
  Registry().MethodCallBackEIT(Connected("A").Record(), second);
  Registry().MethodCallBackEIT(Disconnected("A").Record(), first);
  PluginInfo plugin;
  ASSERT_TRUE(Registry().GetPluginInfoByID(plugin, "A"));
  EXPECT_EQ(plugin.connect_state, 1);
  EXPECT_EQ(Journal::Count("host 3 A"), 1U) << "the host is told all the same";

  Method(Disconnected("A"));
  ASSERT_TRUE(Registry().GetPluginInfoByID(plugin, "A"));
  EXPECT_EQ(plugin.connect_state, 0);
}

}  // namespace
}  // namespace tolm::test
