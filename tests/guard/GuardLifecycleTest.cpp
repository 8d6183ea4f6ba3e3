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

/// The whole frame's start with its guard's side, and its next life.
class GuardLifecycle : public GuardTest {};

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
       "log Set map_plugin_init_status_, key[A], plugin_id[A]", "log Start to init TolmAgent",
       "event.Open Global\\C:/App/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent",
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
  net_.set_callback = [](std::int32_t) {
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
