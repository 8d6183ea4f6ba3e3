#include <stdexcept>
#include <string>
#include <vector>

#include "FrameScript.h"
#include "RegistryInside.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kSleep[] = "krt.Sleep 1000";
constexpr char kAllUninited[] = "log All LPC plugins have uninited finish";
constexpr char kUninitBody[] = R"({"method":"Uninit"})";

class FrameShutdown : public FrameTest {
 protected:
  /// These plugins are listed and connected.
  void Connect(std::initializer_list<std::string> ids, std::int32_t frame_type = 0) {
    List(Plugins(ids, frame_type));
    for (const std::string& id : ids) Method(Connected(id));
    FromNowOn();
  }

  /// Every plugin answers its "Uninit" while the frame sleeps for the `sleep`th time.
  void EverybodyAnswersIn(int sleep) {
    clock_.in_sleep = [this, sleep](int count) {
      if (count != sleep) return;
      for (const tag_LPCRequestData& request : transport_.Requests()) Method(UninitFinish(request.dst_id));
    };
  }

  static LogLine NotifyLine(const std::string& key, int tick) {
    return Line(3, "platform.PluginFrame", "CLPCIntegrate::CloseAllComponents",
                "[/method:Uninit], Notify [" + key + "] plugin start uninit, time tick [" +
                    std::to_string(tick) + "]");
  }
  static LogLine AllLine() {
    return Line(3, "platform.PluginFrame", "CLPCIntegrate::CloseAllComponents",
                "All LPC plugins have uninited finish");
  }
};

TEST_F(FrameShutdown, WithNobodyConnectedNothingIsSentAndNobodyWaitedFor) {
  List(Plugins({"A", "B"}));
  FromNowOn();
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Entries(), ElementsAre("guard.SetProcessGuardStateList A=false B=false", kAllUninited,
                                              "guard.NotifyFrameUninit"));
  EXPECT_THAT(log_.Lines(), ElementsAre(AllLine()));
}

TEST_F(FrameShutdown, WithNobodyListedTheGuardStillGetsItsEmptyList) {
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("guard.SetProcessGuardStateList", kAllUninited, "guard.NotifyFrameUninit"));
}

TEST_F(FrameShutdown, EveryConnectedPluginIsAskedInKeyOrderAndItsAskingLoggedFirst) {
  Connect({"B", "A"});
  Registry().CloseAllComponents();
  EXPECT_TRUE(
      HappenedInOrder({"guard.SetProcessGuardStateList A=false B=false",
                       "log [/method:Uninit], Notify [A] plugin start uninit, time tick [1000]", "lpc.Send A",
                       "log [/method:Uninit], Notify [B] plugin start uninit, time tick [1001]", "lpc.Send B",
                       kSleep, "guard.NotifyFrameUninit"}));
  EXPECT_THAT(log_.Lines(), ElementsAre(NotifyLine("A", 1000), NotifyLine("B", 1001)));
}

TEST_F(FrameShutdown, TheQuestionIsABareUninit) {
  Connect({"A", "B"});
  Registry().CloseAllComponents();
  ASSERT_THAT(transport_.Requests(), SizeIs(2));
  for (const tag_LPCRequestData& request : transport_.Requests()) {
    EXPECT_EQ(request.body, kUninitBody);
    EXPECT_THAT(request.params, IsEmpty());
  }
}

TEST_F(FrameShutdown, PluginsThatAreNotConnectedAreNotAsked) {
  Connect({"A", "B", "C"});
  Method(Disconnected("B"));
  FromNowOn();
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Send A", "lpc.Send C"));
}

TEST_F(FrameShutdown, APluginThatTheHostListedAsConnectedIsAsked) {
  PlatformInfo info = Plugins({"A", "B", "C"});
  info.plugin_map["A"].connect_state = 1;
  info.plugin_map["B"].connect_state = -1;
  List(info);
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Send A", "lpc.Send B"));
}

TEST_F(FrameShutdown, TheGuardKnowsPluginsByIdAndTheTransportByKey) {
  PlatformInfo info;
  info.plugin_map["key"].plugin_id = "id";
  info.plugin_map["key"].connect_state = 1;
  List(info);
  FromNowOn();
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("guard.SetProcess"), ElementsAre("guard.SetProcessGuardStateList id=false"));
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Send key"));
  EXPECT_THAT(log_.Lines(), ElementsAre(NotifyLine("key", 1000)));
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("key"));
}

// Waiting.

TEST_F(FrameShutdown, TheWaitEndsWithTheTestAfterTheLastAnswer) {
  Connect({"A", "B"});
  EverybodyAnswersIn(3);
  Registry().CloseAllComponents();
  EXPECT_EQ(Journal::Of("krt.").size(), 3u);
  EXPECT_TRUE(HappenedInOrder({kSleep, kSleep, kSleep, kAllUninited, "guard.NotifyFrameUninit"}));
  EXPECT_THAT(StillUniniting(Registry()), IsEmpty());
}

TEST_F(FrameShutdown, OfTwoPluginsOneThatDoesNotAnswerIsWaitedForTenTimesAndStaysListed) {
  Connect({"A", "B"});
  clock_.in_sleep = [this](int count) {
    if (count == 1) Method(UninitFinish("A"));
  };
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("krt."), SizeIs(10));
  EXPECT_THAT(Journal::Of("krt."), ::testing::Each(kSleep));
  EXPECT_EQ(Journal::Count(kAllUninited), 0u);
  EXPECT_THAT(Journal::Of("lpc."), SizeIs(2));
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("B"));
  EXPECT_EQ(Journal::Count("guard.NotifyFrameUninit"), 1u);
}

TEST_F(FrameShutdown, AnAnswerInTheLastSleepIsNotNoticedAnyMore) {
  Connect({"A"});
  EverybodyAnswersIn(10);
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("krt."), SizeIs(10));
  EXPECT_EQ(Journal::Count(kAllUninited), 0u);
  EXPECT_THAT(StillUniniting(Registry()), IsEmpty());
}

TEST_F(FrameShutdown, AnAnswerInTheNinthSleepIsNoticedByTheLastTest) {
  Connect({"A"});
  EverybodyAnswersIn(9);
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("krt."), SizeIs(9));
  EXPECT_EQ(Journal::Count(kAllUninited), 1u);
}

TEST_F(FrameShutdown, ASendThatFailsIsNotNoticed) {
  Connect({"A"});
  transport_.send = 0;
  Registry().CloseAllComponents();
  EXPECT_THAT(Journal::Of("krt."), SizeIs(10));
  EXPECT_THAT(log_.Lines(), ElementsAre(NotifyLine("A", 1000)));
}

TEST_F(FrameShutdown, AnAnswerThatComesTwiceOrUnaskedBreaksNothing) {
  Connect({"A", "B"});
  Method(UninitFinish("A"));
  clock_.in_sleep = [this](int count) {
    if (count > 2) return;
    Method(UninitFinish("A"));
    Method(UninitFinish("nobody"));
  };
  Registry().CloseAllComponents();
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("B"));
}

TEST_F(FrameShutdown, WhoNeverAnsweredIsStillListedInASecondShutdown) {
  Connect({"A"});
  Registry().CloseAllComponents();
  Registry().CloseAllComponents();
  EXPECT_THAT(StillUniniting(Registry()), ElementsAre("A", "A"));
}

TEST_F(FrameShutdown, APluginMayUseTheFrameWhileItIsAsked) {
  Connect({"A"});
  transport_.send = [](const tag_LPCRequestData&) {
    int time_out = 0;
    IsPluginURL(time_out, "/x");
    Registry().GetPluginInitState("A");
    Registry().GetPluginData();
    return std::uint64_t{1};
  };
  Registry().CloseAllComponents();
  EXPECT_THAT(transport_.Requests(), SizeIs(1));
}

// The guard.

TEST_F(FrameShutdown, AGuardThatTookTheListIsToldOfTheEndLast) {
  Connect({"A"});
  EverybodyAnswersIn(1);
  Registry().CloseAllComponents();
  EXPECT_TRUE(HappenedInOrder({"guard.SetProcessGuardStateList A=false", "lpc.Send A", kSleep, kAllUninited,
                               "guard.NotifyFrameUninit"}));
  EXPECT_EQ(Journal::Count("guard.NotifyFrameUninit"), 1u);
  EXPECT_EQ(Journal::Count("guard.UnInitTolmAgent"), 0u);
}

TEST_F(FrameShutdown, OfFrameType1TheAgentIsEndedAfterTheGuardWasTold) {
  Connect({"A"}, 1);
  EverybodyAnswersIn(1);
  Registry().CloseAllComponents();
  EXPECT_TRUE(HappenedInOrder({"guard.SetProcessGuardStateList A=false", "lpc.Send A", kAllUninited,
                               "guard.NotifyFrameUninit", "guard.UnInitTolmAgent"}));
  EXPECT_EQ(Journal::Of("guard.").size(), 3u);
}

TEST_F(FrameShutdown, AGuardThatDidNotTakeTheListIsToldOfTheEndFirstAndOnce) {
  Connect({"A"}, 2);
  EverybodyAnswersIn(1);
  guard_.set_process_guard_state_list = false;
  Registry().CloseAllComponents();
  EXPECT_TRUE(HappenedInOrder(
      {"guard.SetProcessGuardStateList A=false", "guard.NotifyFrameUninit", "lpc.Send A", kAllUninited}));
  EXPECT_EQ(Journal::Of("guard.").size(), 2u);
}

TEST_F(FrameShutdown, OfFrameType1WithoutAGuardOnlyTheAgentIsEndedAndFirst) {
  Connect({"A"}, 1);
  EverybodyAnswersIn(1);
  guard_.set_process_guard_state_list = false;
  Registry().CloseAllComponents();
  EXPECT_TRUE(HappenedInOrder(
      {"guard.SetProcessGuardStateList A=false", "guard.UnInitTolmAgent", "lpc.Send A", kAllUninited}));
  EXPECT_EQ(Journal::Count("guard.NotifyFrameUninit"), 0u);
  EXPECT_EQ(Journal::Of("guard.").size(), 2u);
}

TEST_F(FrameShutdown, AGuardThatCannotBeToldOfTheEndChangesNothing) {
  Connect({"A"}, 1);
  guard_.notify_frame_uninit = false;
  Registry().CloseAllComponents();
  EXPECT_TRUE(HappenedInOrder({"guard.NotifyFrameUninit", "guard.UnInitTolmAgent"}));
  EXPECT_EQ(Journal::Count("guard.NotifyFrameUninit"), 1u);
}

// What is forgotten.

TEST_F(FrameShutdown, TheEndForgetsTheUrlsAndKeepsThePlugins) {
  Connect({"A"});
  Serve("A", "/x");
  Registry().PluginURLRegister(Registration("A", R"({"RegisterInfo":{"SupportHttpHeaderList":["X"]}})"));
  RegisterUrl({"/host"});
  Ready("A");
  Registry().UnInit();

  std::string id;
  std::int32_t time_out = 0;
  EXPECT_FALSE(Registry().FindDstIdByUrl(id, "/x"));
  EXPECT_FALSE(Registry().IsUrlFromPlugin(time_out, "/x"));
  EXPECT_THAT(TimeoutsByUrl(Registry()), IsEmpty());
  EXPECT_THAT(UrlsOfHost(Registry()), IsEmpty());
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
  EXPECT_EQ(Registry().GetPluginData().at("A").connect_state, 1);
  std::vector<std::string> headers;
  Registry().GetHttpHeaders(headers);
  EXPECT_THAT(headers, ElementsAre("X"));
  FromNowOn();
  Ready("A");
  EXPECT_EQ(Journal::Count("log All LPC plugins have inited finish"), 1u);
}

TEST_F(FrameShutdown, TheUrlsAreForgottenOnlyAfterTheWait) {
  Connect({"A"});
  Serve("A", "/x");
  bool served = false;
  clock_.in_sleep = [&](int count) {
    std::string id;
    if (count == 10) served = Registry().FindDstIdByUrl(id, "/x");
  };
  Registry().UnInit();
  EXPECT_TRUE(served);
}

TEST_F(FrameShutdown, ARequestForAPluginAfterTheUrlsWereForgottenGoesToTheHost) {
  Serve("A", "/x");
  Registry().UnInit();
  FromNowOn();
  Registry().URLCallBackEIT("/x", "", Message().From("B").Url("/x").Record());
  EXPECT_THAT(Journal::Of("pool."), ElementsAre("pool.Post MainFrameWork CURLTask"));
}

TEST_F(FrameShutdown, ASecondLifeStartsWithTheOldFlags) {
  Connect({"A"});
  Ready("A");
  Registry().UnInit();
  List(Plugins({"A", "B"}));
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
  EXPECT_FALSE(Registry().GetPluginInitState("B"));
}

// Through the whole frame.

TEST_F(FrameShutdown, PluginsAnswerThroughTheTransportWhileTheFrameStops) {
  Start(Plugins({"A", "B"}));
  transport_.Deliver(Connected("A"));
  transport_.Deliver(Connected("B"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count(2) == 2; }));
  clock_.in_sleep = [&](int count) {
    if (count != 1) return;
    transport_.Deliver(UninitFinish("A"));
    transport_.Deliver(UninitFinish("B"));
    EXPECT_TRUE(WaitFor([&] { return StillUniniting(Registry()).empty(); }));
  };
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(Journal::Of("krt.").size(), 1u);
  EXPECT_TRUE(HappenedInOrder(
      {"lpc.Send A", "lpc.Send B", kSleep, kAllUninited, "pool.Stop WebSocket false", "lpc.StopListen"}));
}

TEST_F(FrameShutdown, ATransportThatThrowsWhilePluginsAreAskedLetsNoExceptionOut) {
  Start(Plugins({"A"}));
  transport_.Deliver(Connected("A"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count(2) == 1; }));
  transport_.send = [](const tag_LPCRequestData&) -> std::uint64_t { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(TolmLPCFrameUnInit());
}

TEST_F(FrameShutdown, EachStepIsMadeWhateverFailsBeforeItAndTheFirstFaultComesLast) {
  Connect({"A", "B"}, 1);
  RegisterUrl({"/host"});
  transport_.send = [](const tag_LPCRequestData& request) -> std::uint64_t {
    if (request.dst_id == "A") throw std::out_of_range("the first fault");
    return 1;
  };
  guard_.notify_frame_uninit = []() -> bool { throw std::runtime_error("the second one"); };
  EXPECT_THROW(Registry().UnInit(), std::out_of_range);
  EXPECT_TRUE(
      HappenedInOrder({"lpc.Send A", "lpc.Send B", "guard.NotifyFrameUninit", "guard.UnInitTolmAgent"}));
  EXPECT_THAT(UrlsOfHost(Registry()), IsEmpty());
}

}  // namespace
}  // namespace tolm::test
