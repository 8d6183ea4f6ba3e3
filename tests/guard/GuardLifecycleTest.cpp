#include <chrono>
#include <string>
#include <thread>

#include "GuardScene.h"
#include "InitLogical.h"
#include "TolmBase/FileUtil.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// The whole frame's start and stop, with what it does to guard and agent.
class GuardLifecycle : public GuardTest {
 protected:
  /// The frame runs, plugins A (connected) and B are listed, and a guard is connected as 7. A answers its
  /// "Uninit" during the first sleep.
  void Prepare(std::int32_t frame_type) {
    PlatformInfo info = Plugins({"A", "B"}, frame_type);
    info.frame_full_path = "C:\\App\\Host.exe";
    system_.event_exists = [](const std::string&) { return false; };
    EXPECT_EQ(StartWithPort(info), 0);
    Connect(7);
    Method(Connected("A"));
    clock_.in_sleep = [this](int) { Method(UninitFinish("A")); };
    system_.event_exists = true;
    FromNowOn();
    net_.Reset();
  }

  std::string RemoveGuard() const { return Removal("TolmGuard\\\\TolmGuard.exe"); }
  std::string RemoveAgent() const { return Removal("TolmAgent\\\\TolmAgent_Exe64.exe"); }
  std::string Removal(const std::string& program) const {
    return "process.Remove wmic process where ExecutablePath=\"" + Folder() + "TolmAgent\\\\" + program +
           "\" delete";
  }
  static constexpr char kOpenEvent[] =
      "event.Open Global\\C:/App/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent";
  static constexpr char kAllUninited[] = "log All LPC plugins have uninited finish";

  /// After the plugins: everything that runs ends, in this order.
  static void ExpectTheRestToEndBehind(const std::string& last) {
    EXPECT_TRUE(HappenedInOrder({last, "pool.Stop WebSocket false", "pool.Stop Plugins false",
                                 "pool.Stop MainFrameWork false", "pool.Stop NetCallBack false", "net.Stop 1",
                                 "lpc.SetInvokeCallBack off", "lpc.StopListen", "lpc.Uninit",
                                 "log Finish UninitLogical", "log TolmLPCFrameUnInit End"}));
  }
};

// Starting.

TEST_F(GuardLifecycle, AStartOpensTheEndpointBehindThePoolsAndBeforeTheRegistry) {
  PlatformInfo info = Plugins({"A"});
  info.frame_full_path = "/opt/host";
  EXPECT_EQ(StartWithPort(info), 0);
  EXPECT_TRUE(HappenedInOrder(
      {"lpc.StartListen endpoint", "pool.Start WebSocket 2 10 5", "log ReadFile path[" + ConfigPath() + "]",
       "log ReadLocalXml ok", "table.Tcp", "table.Udp", "log local xml port ok", "net.Start 127.0.0.1 8123",
       "net.SetCallBack 1", "log  Websocket Server Start successd port = 8123.", "log *****[/opt/host]",
       "log Start SetPluginData", "log TolmLPCFrameInit End, utf8_exe_dir = " + Folder()}));
  EXPECT_THAT(Journal::Of("event."), IsEmpty());
  EXPECT_THAT(Journal::Of("process."), IsEmpty());
}

TEST_F(GuardLifecycle, AStartOfTypeOneStartsTheAgentBehindTheRegistry) {
  PlatformInfo info = Plugins({"A"}, 1);
  info.frame_full_path = "C:/App/Host.exe";
  EXPECT_EQ(StartWithPort(info), 0);
  EXPECT_TRUE(HappenedInOrder(
      {"net.Start 127.0.0.1 8124", "log *****[C:/App/Host.exe]",
       "log Set map_plugin_init_status_, key[A], plugin_id[A]", "log Start to init TolmAgent", kOpenEvent,
       "process.Start \"C:\\App\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe\" \"C:\\App\\Host.exe\" Client "
       "-process",
       "log Create Agent processID 4711 ", "log TolmLPCFrameInit End, utf8_exe_dir = " + Folder()}));
}

TEST_F(GuardLifecycle, TheConfigurationLiesInThePublishedFolderOfTheExecutable) {
  Tolm::Base::FileUtil::InitCurExeDirUtf8("/somewhere/else/");
  EXPECT_EQ(StartWithPort(), 0);
  EXPECT_EQ(Journal::Count("net.Start 127.0.0.1 8123"), 1u);
}

TEST_F(GuardLifecycle, AFrameWhoseEndpointDoesNotOpenRunsWithoutIt) {
  EXPECT_EQ(Start(Plugins({"A"})), 0);  // there is no configuration file
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
  transport_.Deliver(InitFinish("A"));
  EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginInited) == 1; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
}

TEST_F(GuardLifecycle, AnAgentThatDoesNotStartIsTolerated) {
  system_.start = [](const std::string&) { return os::StartedProcess{false, 0, 5}; };
  EXPECT_EQ(StartWithPort(Plugins({}, 1)), 0);
  EXPECT_TRUE(
      log_.Has(Error("CLPCCommunicateWithTolmGuard::InitTolmAgent", "CreateProcess failed ErrorCode: 5")));
}

TEST_F(GuardLifecycle, AGuardAsksOverTheWholeWay) {
  PlatformInfo info = Plugins({"A"});
  info.frame_full_path = "/opt/host";
  StartWithPort(info);
  Connect(7);
  net_.Text(7, Asks("GetProcessInitStateList", "1"));
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_THAT(net_.Sent()[0].data,
              JsonIs(R"({"code":"0","msg":"","guid":"1","responseData":{"initInfoList":[)"
                     R"({"processName":"A","initState":0}],"total":1}})"));
  transport_.Deliver(InitFinish("A"));
  EXPECT_TRUE(WaitFor([&] { return net_.Sent("NotifyState").size() == 1; }));
  net_.Text(7, ProcessState(R"("state":0,"processId":"A")"));
  EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginUninited) == 1; }));
}

TEST_F(GuardLifecycle, TheHostsAnnouncementIsAnsweredOverTheWholeWay) {
  StartWithPort(Plugins({"A"}));
  Connect(7);
  AnswerOverTheWire();
  TolmLPCFrameNotifyStartPlugins("c");
  EXPECT_EQ(net_.Sent("NotifyLPCFrameInit").size(), 1u);
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1)));
}

TEST_F(GuardLifecycle, AGuardThatConnectsDuringTheAttemptsAnswersTheNextOne) {
  StartWithPort();
  AnswerOverTheWire();
  waits_.how_long = [this](std::int32_t) {
    if (Endpoint().GetSessionId() == 7) return 20000;
    Connect(7);
    return 0;
  };
  TolmLPCFrameNotifyStartPlugins("c");
  constexpr char kFunction[] = "CLPCCommunicateWithTolmGuard::NotifyGuardLPCFrameInit";
  EXPECT_THAT(LinesOf(kFunction),
              ElementsAre(Info(kFunction, "Notify Guard LPCFrame Init"),
                          Line(3, "LPCFrameError", kFunction, "Notify Guard LPCFrame Init failed"),
                          Info(kFunction, "Notify Guard LPCFrame Init"),
                          Info(kFunction, "Notify Guard LPCFrame Init Successfully")));
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1)));
}

TEST_F(GuardLifecycle, OverTheWholeWayAGuardThatAnswersAtOnceIsHeardTwoHundredTimes) {
  log_.SetLevel(5);
  StartWithPort();
  net_.Handshake(7);
  ASSERT_TRUE(WaitFor([] { return Endpoint().GetSessionId() == 7; }));
  AnswerOverTheWire();
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(Guard().SetProcessGuardStateList({})) << i;
}

// Stopping: a guard that accepts the list.

TEST_F(GuardLifecycle, WithAGuardThatAnswersThePluginsEndFirstAndTheGuardIsToldThen) {
  for (const std::int32_t type : {0, 2}) {
    Prepare(type);
    AnswerOverTheWire();
    EXPECT_EQ(TolmLPCFrameUnInit(), 0);
    EXPECT_TRUE(
        HappenedInOrder({"log Start UninitLogical", "net.Send 7 SetProcessGuardStateList", "wait 3000",
                         "lpc.Send A", "krt.Sleep 1000", kAllUninited, "net.Send 7 NotifyFrameUninit"}));
    ExpectTheRestToEndBehind("net.Send 7 NotifyFrameUninit");
    EXPECT_EQ(net_.Sent("NotifyFrameUninit").size(), 1u);
    EXPECT_THAT(Journal::Of("process."), IsEmpty());
    EXPECT_THAT(Journal::Of("event."), IsEmpty());
  }
}

TEST_F(GuardLifecycle, OfTypeOneTheGuardIsToldAndThenTheAgentEnds) {
  Prepare(1);
  AnswerOverTheWire();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(HappenedInOrder({"net.Send 7 SetProcessGuardStateList", "lpc.Send A", kAllUninited,
                               "net.Send 7 NotifyFrameUninit", kOpenEvent, "event.Set", "event.Wait 5000",
                               RemoveGuard(), RemoveAgent()}));
  ExpectTheRestToEndBehind(RemoveAgent());
  EXPECT_EQ(net_.Sent("NotifyFrameUninit").size(), 1u);
  EXPECT_EQ(Journal::Of("process.").size(), 2u);
}

// Stopping: nobody answers.

TEST_F(GuardLifecycle, WithAGuardThatDoesNotAnswerItIsToldBeforeThePluginsAndOnce) {
  for (const std::int32_t type : {0, 2}) {
    Prepare(type);
    EXPECT_EQ(TolmLPCFrameUnInit(), 0);
    EXPECT_TRUE(
        HappenedInOrder({"net.Send 7 SetProcessGuardStateList", "wait 3000", "net.Send 7 NotifyFrameUninit",
                         "lpc.Send A", "krt.Sleep 1000", kAllUninited}));
    ExpectTheRestToEndBehind(kAllUninited);
    EXPECT_EQ(net_.Sent("NotifyFrameUninit").size(), 1u);
    EXPECT_THAT(Journal::Of("process."), IsEmpty());
  }
}

TEST_F(GuardLifecycle, OfTypeOneWithoutAnAnswerTheAgentEndsBeforeThePluginsAndTheGuardIsNotTold) {
  Prepare(1);
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(HappenedInOrder({"net.Send 7 SetProcessGuardStateList", "wait 3000", kOpenEvent, "event.Set",
                               RemoveGuard(), RemoveAgent(), "lpc.Send A", kAllUninited}));
  EXPECT_THAT(net_.Sent("NotifyFrameUninit"), IsEmpty());
  EXPECT_EQ(Journal::Count("event.Set"), 1u);
  EXPECT_EQ(Journal::Of("process.").size(), 2u);
  ExpectTheRestToEndBehind(kAllUninited);
}

TEST_F(GuardLifecycle, WithoutAGuardItIsAskedAllTheSame) {
  StartWithPort(Plugins({"A"}));
  net_.send = 1;
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_THAT(Journal::Of("net."), ElementsAre("net.Send -1 SetProcessGuardStateList",
                                               "net.Send -1 NotifyFrameUninit", "net.Stop 1"));
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 3000"));
}

TEST_F(GuardLifecycle, ASecondStopAsksTheGuardAgain) {
  StartWithPort(Plugins({"A"}, 1));
  TolmLPCFrameUnInit();
  FromNowOn();
  net_.Reset();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(net_.Sent("SetProcessGuardStateList").size(), 1u);
  EXPECT_THAT(Journal::Of("process."), ElementsAre(RemoveGuard(), RemoveAgent()));
}

TEST_F(GuardLifecycle, TheGuardsListHasEveryPluginByItsPluginIdSortedAndNotWatched) {
  PlatformInfo info;
  info.plugin_map["1"].plugin_id = "Z";
  info.plugin_map["2"].plugin_id = "A";
  info.plugin_map["3"].plugin_id = "Z";
  info.plugin_map["3"].not_verified = true;
  StartWithPort(info);
  TolmLPCFrameUnInit();
  ASSERT_EQ(net_.Sent("SetProcessGuardStateList").size(), 1u);
  EXPECT_THAT(net_.Sent("SetProcessGuardStateList")[0].data,
              JsonIs(R"({"guid":"*","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[)"
                     R"({"processName":"A","type":0},{"processName":"Z","type":0}],"total":2}})"));
}

TEST_F(GuardLifecycle, AnAnswerThatComesWhileTheFrameStopsWakesTheStop) {
  Prepare(0);
  AnswerOverTheWire();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  // It was not the time-out: that would have been told before the plugins.
  EXPECT_TRUE(HappenedInOrder({"lpc.Send A", "net.Send 7 NotifyFrameUninit"}));
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
}

TEST_F(GuardLifecycle, EventsBehindTheStopReachNobody) {
  StartWithPort();
  Connect(7);
  TolmLPCFrameUnInit();
  FromNowOn();
  const std::string text = Asks("GetMianProcessPath", "g");
  Endpoint().WebsocketTolmGuardServerMsgCallback(
      7, {true, 1, 0, static_cast<std::uint32_t>(text.size()), text.data()});
  Endpoint().WebsocketTolmGuardServerMsgCallback(8, {true, 12, 0, 0, nullptr});
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
  EXPECT_EQ(Endpoint().GetSessionId(), 7);
}

// The next life.

TEST_F(GuardLifecycle, InASecondLifeAGuardIsToldNothingBeforeTheHostAnnouncesAndThenTheNewCommandLine) {
  StartWithPort(Plugins({"A"}));
  Connect(7);
  TolmLPCFrameNotifyStartPlugins("old");
  TolmLPCFrameUnInit();
  net_.Reset();
  StartWithPort(Plugins({"A"}));
  Connect(8);
  // What was posted behind the handshake is answered, so the handshake was handled.
  net_.Text(8, Asks("GetMianProcessPath", "g"));
  ASSERT_TRUE(WaitFor([&] { return !net_.Sent().empty(); }));
  EXPECT_THAT(NoticesByConnection(), IsEmpty());
  TolmLPCFrameNotifyStartPlugins("new");
  ASSERT_EQ(net_.Sent("NotifyFrameInitState").size(), 1u);
  EXPECT_EQ(net_.Sent("NotifyFrameInitState")[0].socket_id, 8);
  EXPECT_THAT(net_.Sent("NotifyFrameInitState")[0].data,
              JsonIs(R"({"guid":"*","requestData":{"method":"NotifyFrameInitState","initState":1,)"
                     R"("cmdline":"new","PluginList":["A"]}})"));
}

TEST_F(GuardLifecycle, InASecondLifeAGuardThatConnectsBehindTheAnnouncementIsToldTheNewCommandLine) {
  StartWithPort();
  Connect(7);
  TolmLPCFrameNotifyStartPlugins("old");
  TolmLPCFrameUnInit();
  net_.Reset();
  StartWithPort();
  net_.send = [](const SentFrame& frame) { return frame.socket_id == 7 ? 1 : 0; };  // gone with its server
  TolmLPCFrameNotifyStartPlugins("new");
  Connect(8);
  EXPECT_TRUE(WaitFor([&] { return NoticesByConnection()[8] == 1; }));
  for (const SentFrame& frame : net_.Sent("NotifyFrameInitState")) {
    EXPECT_THAT(frame.data, ::testing::HasSubstr("new"));
  }
}

TEST_F(GuardLifecycle, AnAnnouncementThatStillWaitsForAGuardWhenTheFrameStopsIsNoneOfTheNextLife) {
  StartWithPort();
  net_.send = 1;
  Gate gate;
  waits_.how_long = [&](std::int32_t asked_ms) {
    if (asked_ms == 5000) gate.Wait();
    return 0;
  };
  std::jthread announcement([] { TolmLPCFrameNotifyStartPlugins("old"); });
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  gate.Open();
  announcement.join();
  net_.Reset();
  StartWithPort();
  Connect(8);
  net_.Text(8, Asks("GetMianProcessPath", "g"));
  ASSERT_TRUE(WaitFor([&] { return !net_.Sent("answer").empty(); }));
  EXPECT_THAT(NoticesByConnection(), IsEmpty());
}

TEST_F(GuardLifecycle, ThatTheFrameIsUpIsToldInTheFirstLifeOnly) {
  StartWithPort();
  TolmLPCFrameNotifyStartPlugins("old");
  TolmLPCFrameUnInit();
  net_.Reset();
  StartWithPort();
  TolmLPCFrameNotifyStartPlugins("new");
  EXPECT_THAT(net_.Sent("NotifyLPCFrameInit"), IsEmpty());
}

TEST_F(GuardLifecycle, ASecondStartWithoutAStopOpensASecondServerOnANewPort) {
  StartWithPort();
  system_.tcp_table = [](std::vector<os::PortRow>& rows) {
    rows.push_back(Held(8123));
    return true;
  };
  EXPECT_EQ(Start(), 0);
  ASSERT_EQ(Journal::Of("net.Start").size(), 2u);
  EXPECT_NE(Journal::Of("net.Start")[1], "net.Start 127.0.0.1 8123");
  EXPECT_EQ(Journal::Count("net.SetCallBack 2"), 1u);
  EXPECT_THAT(ReadFile("LpcFrame.xml"),
              ::testing::HasSubstr("<ServerPort>" + std::to_string(PortOf(Endpoint())) + "<"));
}

// What arrives while the frame starts.

TEST_F(GuardLifecycle, WhileAStartThatIsInForceIsRepeatedPluginsAreHeard) {
  StartWithPort(Plugins({"A"}));
  FromNowOn();
  Gate gate;
  net_.start = [&](std::int32_t& handle) {
    gate.Wait();
    handle = 2;
    return 0;
  };
  std::jthread second_start([&] { TolmLPCFrameInit("endpoint", Plugins({"A"})); });
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  transport_.Deliver(InitFinish("A"));
  EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginInited) == 1; }));
  EXPECT_EQ(gate.Waiting(), 1);
  gate.Open();
}

TEST_F(GuardLifecycle, WhileAFirstStartRunsPluginsWait) {
  Gate gate;
  net_.start = [&](std::int32_t& handle) {
    gate.Wait();
    handle = 1;
    return 0;
  };
  std::jthread start([&] { StartWithPort(Plugins({"A"})); });
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  transport_.Deliver(InitFinish("A"));
  ASSERT_TRUE(WaitFor(
      [] { return Tolm::Base::CSingleton<CMessageLoopForNetCallBack>::Instance().QueuedCount() == 0; }));
  EXPECT_FALSE(WaitFor([&] { return host_.Count() != 0; }, std::chrono::milliseconds(30)));
  gate.Open();
  EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginInited) == 1; }));
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
}

TEST_F(GuardLifecycle, AGuardThatConnectsWhileAFirstStartRunsFindsTheRegistryFilled) {
  // The server is open before the registry knows a plugin.
  net_.set_callback = [this](std::int32_t) {
    const std::string text = Asks("GetProcessInitStateList", "g");
    Endpoint().WebsocketTolmGuardServerMsgCallback(
        7, {true, 1, 0, static_cast<std::uint32_t>(text.size()), text.data()});
    WaitFor([] { return Tolm::Base::CSingleton<CMessageLoopForWebSocket>::Instance().QueuedCount() == 0; });
    return 0;
  };
  StartWithPort(Plugins({"A"}));
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_THAT(net_.Sent()[0].data, ::testing::HasSubstr("\"A\""));
}

}  // namespace
}  // namespace tolm::test
