#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "FrameScript.h"
#include "InitLogical.h"
#include "TolmBase/FileUtil.h"
#include "TolmBase/StringUtil.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class FrameLifecycle : public FrameTest {
 protected:
  static PlatformInfo Platform() {
    PlatformInfo info = Plugins({"A"}, 7);
    info.frame_full_path = "/opt/host/host";
    info.str_edition_config = "12";
    return info;
  }

  static std::string Directory() {
    return Tolm::Base::StringUtil::Local2UTF8(Tolm::Base::FileUtil::GetCurExeDir());
  }

  /// Plugin A is there as soon as the endpoint is: one message of each kind arrives.
  void DeliverWhileStarting() {
    transport_.start_listen = [&](const std::string&) {
      EXPECT_TRUE(transport_.Deliver(Connected("A")));
      EXPECT_TRUE(
          transport_.Deliver(Registration("A", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/a"}]}})")));
      EXPECT_TRUE(transport_.Deliver(InitFinish("A")));
      EXPECT_TRUE(transport_.Deliver(Message().From("A").Url("/host")));
      return true;
    };
    // The start goes on once the pool's two first threads have each taken one of the four.
    guard_.init_manager = [](std::int32_t) {
      return WaitFor(
          [] { return Tolm::Base::CSingleton<CMessageLoopForNetCallBack>::Instance().QueuedCount() <= 2; });
    };
  }
  void ExpectEarlyMessagesHandled() {
    EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgLpcData) == 1; }));
    EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginConnected) == 1; }));
    EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgPluginInited) == 1; }));
    int time_out = 0;
    EXPECT_TRUE(WaitFor([&] { return IsPluginURL(time_out, "/a"); }));
    // The registry listed the plugin before they were looked at.
    EXPECT_TRUE(Registry().GetPluginInitState("A"));
    EXPECT_EQ(Registry().GetPluginData().at("A").connect_state, 1);
  }

  /// A start that fails as scripted, and what it leaves behind.
  void ExpectNothingStarted() {
    EXPECT_EQ(Start(Platform()), -8);
    EXPECT_THAT(Journal::Of("pool.Start"), IsEmpty());
    EXPECT_THAT(Journal::Of("guard."), IsEmpty());
    EXPECT_THAT(ThreadsOfPools(), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(LinesOf("CLPCIntegrate::Init"), IsEmpty());
    EXPECT_THAT(LinesOf("::TolmLPCFrameInit"),
                ElementsAre(Info("TolmLPCFrameInit",
                                 "TolmLPCFrameInit Begin lpc_server_name=[endpoint],frame_full_path="
                                 "[/opt/host/host],frame_type[7],str_edition_config[12]")));
    EXPECT_EQ(TolmLPCFrameUnInit(), -8);
    EXPECT_THAT(Journal::Of("lpc.StopListen"), IsEmpty());
  }
};
// Starting.

TEST_F(FrameLifecycle, AStartBringsUpTransportThenPoolsThenGuardThenRegistry) {
  EXPECT_EQ(Start(Platform()), 0);
  EXPECT_TRUE(HappenedInOrder(
      {"log TolmLPCFrameInit Begin lpc_server_name=[endpoint],frame_full_path=[/opt/host/host],frame_type[7],"
       "str_edition_config[12]",
       "lpc.Init", "lpc.SetInvokeCallBack on", "lpc.StartListen endpoint", "pool.Start NetCallBack 2 30 0",
       "pool.Start MainFrameWork 2 30 0", "pool.Start Plugins 2 30 0", "pool.Start WebSocket 2 10 5",
       "guard.InitManager 7", "log *****[/opt/host/host]", "log Start SetPluginData",
       "log TolmLPCFrameInit End, utf8_exe_dir = " + Directory()}));
  EXPECT_EQ(Journal::Of("pool.Start").size(), 4u);
  EXPECT_EQ(Journal::Of("guard.").size(), 1u);
}

TEST_F(FrameLifecycle, AStartLogsItsBeginAndItsEnd) {
  Start(Platform());
  EXPECT_THAT(LinesOf("::TolmLPCFrameInit"),
              ElementsAre(Info("TolmLPCFrameInit",
                               "TolmLPCFrameInit Begin lpc_server_name=[endpoint],frame_full_path="
                               "[/opt/host/host],frame_type[7],str_edition_config[12]"),
                          Info("TolmLPCFrameInit", "TolmLPCFrameInit End, utf8_exe_dir = " + Directory())));
  EXPECT_THAT(LinesOf("::InitLogical"), IsEmpty());
}

TEST_F(FrameLifecycle, TheEditionTextIsLoggedAsItsLeadingNumber) {
  const auto logged = [this](const std::string& edition) {
    PlatformInfo info;
    info.str_edition_config = edition;
    FromNowOn();
    Start(info);
    const std::string text = LinesOf("::TolmLPCFrameInit").at(0).text;
    return text.substr(text.rfind('['));
  };
  EXPECT_EQ(logged("2024 pro"), "[2024]");
  EXPECT_EQ(logged("0"), "[0]");
  EXPECT_EQ(logged(""), "[0]");
  EXPECT_EQ(logged("pro 2024"), "[0]");
  EXPECT_EQ(logged("-3"), "[-3]");
  EXPECT_THAT(logged("99999999999999999999"), StartsWith("["));
}

TEST_F(FrameLifecycle, AStartPublishesTheExecutablesDirectory) {
  Tolm::Base::FileUtil::InitCurExeDirUtf8("/somewhere/else/");
  Start();
  EXPECT_EQ(Tolm::Base::FileUtil::GetCurExeDirUtf8(), Directory());
}

TEST_F(FrameLifecycle, ThePoolsRunBeforeTheGuardsEndpointIsOpened) {
  std::vector<std::size_t> while_listening;
  std::vector<std::size_t> when_opening;
  transport_.start_listen = [&](const std::string&) { return while_listening = ThreadsOfPools(), true; };
  guard_.init_manager = [&](std::int32_t) { return when_opening = ThreadsOfPools(), true; };
  Start();
  EXPECT_THAT(while_listening, ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(when_opening, ElementsAre(2, 2, 2, 2));
}

TEST_F(FrameLifecycle, AGuardEndpointThatDoesNotOpenIsTolerated) {
  guard_.init_manager = false;
  EXPECT_EQ(Start(Plugins({"A"})), 0);
  EXPECT_THAT(LinesOf("CLPCIntegrate::Init"), ElementsAre(Info("CLPCIntegrate::Init", "*****[]")));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
}

TEST_F(FrameLifecycle, MessagesThatArriveWhileTheFrameStartsAreHandledOnceItHasStarted) {
  DeliverWhileStarting();
  Start(Plugins({"A"}));
  ExpectEarlyMessagesHandled();
}

TEST_F(FrameLifecycle, MessagesThatArriveWhileASecondLifeStartsAreHandledOnceItHasStarted) {
  Start();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  FromNowOn();
  DeliverWhileStarting();
  Start(Plugins({"A"}));
  ExpectEarlyMessagesHandled();
}

TEST_F(FrameLifecycle, ASecondStartRepeatsTheWholeStart) {
  Start(Platform());
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameInit("endpoint", Platform()), 0);
  EXPECT_TRUE(HappenedInOrder({"lpc.Init", "lpc.SetInvokeCallBack on", "lpc.StartListen endpoint",
                               "pool.Start NetCallBack 2 30 0", "pool.Start MainFrameWork 2 30 0",
                               "pool.Start Plugins 2 30 0", "pool.Start WebSocket 2 10 5",
                               "guard.InitManager 7", "log *****[/opt/host/host]"}));
  EXPECT_FALSE(log_.Has(Info("TolmLPCFrameInit", "TolmLPCFrameInit alreadly init")));
  EXPECT_THAT(ThreadsOfPools(), ElementsAre(2, 2, 2, 2));
}

TEST_F(FrameLifecycle, ASecondStartUnderAnotherNameFailsAsTheTransportDoesAndTheFrameStaysUp) {
  Start(Platform());
  transport_.start_listen = false;
  EXPECT_EQ(TolmLPCFrameInit("another", Platform()), -8);
  EXPECT_THAT(ThreadsOfPools(), ElementsAre(2, 2, 2, 2));
  transport_.Deliver(Message().From("A").Url("/x"));
  EXPECT_TRUE(WaitFor([&] { return host_.Count(kLpcMsgLpcData) == 1; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
}

TEST_F(FrameLifecycle, StartsFromManyThreadsComeOneAfterAnother) {
  std::atomic<int> inside{0};
  std::atomic<int> most_inside{0};
  transport_.init = [&] {
    most_inside = std::max(most_inside.load(), ++inside);
    return true;
  };
  guard_.init_manager = [&](std::int32_t) {
    --inside;
    return true;
  };
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([] { TolmLPCFrameInit("endpoint", {}); });
  }
  EXPECT_EQ(most_inside, 1);
  EXPECT_EQ(Journal::Count("lpc.StartListen endpoint"), 8u);
}

// A transport that fails at the start.

TEST_F(FrameLifecycle, ATransportThatDoesNotInitialiseEndsTheStart) {
  if (WasStartedByAnEarlierCase()) GTEST_SKIP() << "needs a fresh process";
  transport_.init = false;
  transport_.last_error = 14;
  ExpectNothingStarted();
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Init"));
  EXPECT_TRUE(HappenedInOrder({"log lpcserver::Init failed,errorcode=14", "log LpcInit failed"}));
  EXPECT_TRUE(log_.Has(Error("CLpcServerManager::LpcInit", "lpcserver::Init failed,errorcode=14")));
  EXPECT_TRUE(log_.Has(Error("InitLogical", "LpcInit failed")));
}

TEST_F(FrameLifecycle, ATransportThatTakesNoCallbackEndsTheStart) {
  if (WasStartedByAnEarlierCase()) GTEST_SKIP() << "needs a fresh process";
  transport_.set_invoke_callback = false;
  transport_.last_error = 1;
  ExpectNothingStarted();
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Init", "lpc.SetInvokeCallBack on"));
  EXPECT_TRUE(
      HappenedInOrder({"log [CDrexNetWorkManager::StartLPCServer] SetInvokeCallBack failed, error code = 1",
                       "log LpcStartListen failed,lpc_server_name=endpoint", "log LpcInit failed"}));
  EXPECT_TRUE(
      log_.Has(Error("CLpcServerManager::LpcStartListen",
                     "[CDrexNetWorkManager::StartLPCServer] SetInvokeCallBack failed, error code = 1")));
  EXPECT_TRUE(
      log_.Has(Error("CLpcServerManager::LpcInit", "LpcStartListen failed,lpc_server_name=endpoint")));
}

TEST_F(FrameLifecycle, ATransportThatDoesNotListenEndsTheStartAndKeepsTheInboundCallback) {
  if (WasStartedByAnEarlierCase()) GTEST_SKIP() << "needs a fresh process";
  transport_.start_listen = false;
  transport_.last_error = 3;
  ExpectNothingStarted();
  EXPECT_THAT(Journal::Of("lpc."),
              ElementsAre("lpc.Init", "lpc.SetInvokeCallBack on", "lpc.StartListen endpoint"));
  EXPECT_TRUE(transport_.HasCallback());
  EXPECT_TRUE(HappenedInOrder({"log [CDrexNetWorkManager::StartLPCServer] StartListen failed, error code = 3",
                               "log LpcStartListen failed,lpc_server_name=endpoint", "log LpcInit failed"}));
  EXPECT_TRUE(log_.Has(Error("CLpcServerManager::LpcStartListen",
                             "[CDrexNetWorkManager::StartLPCServer] StartListen failed, error code = 3")));
}

TEST_F(FrameLifecycle, AStartAfterAFailedOneSucceeds) {
  transport_.start_listen = false;
  EXPECT_EQ(Start(), -8);
  transport_.start_listen = true;
  EXPECT_EQ(Start(), 0);
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
}

TEST_F(FrameLifecycle, ATransportThatThrowsAtTheStartMakesItFail) {
  transport_.init = []() -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(EXPECT_EQ(Start(), -8));
  transport_.init = true;
  EXPECT_EQ(Start(), 0);
}

// Stopping.

TEST_F(FrameLifecycle, AStopWithoutAStartFailsAndTouchesNothing) {
  if (WasStartedByAnEarlierCase()) GTEST_SKIP() << "needs a fresh process";
  EXPECT_EQ(TolmLPCFrameUnInit(), -8);
  EXPECT_THAT(log_.Lines(), ElementsAre(Info("TolmLPCFrameUnInit", "TolmLPCFrameUnInit begin"),
                                        Info("UninitLogical", "Start UninitLogical"),
                                        Error("TolmLPCFrameUnInit", "LpcUnint UninitLogical failed")));
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
  EXPECT_THAT(Journal::Of("pool."), IsEmpty());
  EXPECT_THAT(Journal::Of("guard."), IsEmpty());
}

TEST_F(FrameLifecycle, TheFrameCountsAsStartedOnlyOnceTheRegistryIsInitialised) {
  if (WasStartedByAnEarlierCase()) GTEST_SKIP() << "needs a fresh process";
  int result = 0;
  guard_.init_agent = [&] { result = TolmLPCFrameUnInit(); };
  Start(Plugins({}, 1));
  EXPECT_EQ(result, -8);
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
}

TEST_F(FrameLifecycle, AStopTakesDownRegistryThenPoolsInReverseThenGuardThenTransport) {
  Start(Platform());
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_THAT(
      Journal::Entries(),
      ElementsAre("log TolmLPCFrameUnInit begin", "log Start UninitLogical",
                  "guard.SetProcessGuardStateList A=false", "log All LPC plugins have uninited finish",
                  "guard.NotifyFrameUninit", "lpc.EndWaitsSoon", "pool.Stop WebSocket false",
                  "pool.Stop Plugins false", "pool.Stop MainFrameWork false", "pool.Stop NetCallBack false",
                  "guard.UninitManager", "lpc.SetInvokeCallBack off", "lpc.StopListen", "lpc.Uninit",
                  "log Finish UninitLogical", "log TolmLPCFrameUnInit End"));
  EXPECT_THAT(LinesOf("::TolmLPCFrameUnInit"),
              ElementsAre(Info("TolmLPCFrameUnInit", "TolmLPCFrameUnInit begin"),
                          Info("TolmLPCFrameUnInit", "TolmLPCFrameUnInit End")));
  EXPECT_THAT(LinesOf("::UninitLogical"), ElementsAre(Info("UninitLogical", "Start UninitLogical"),
                                                      Info("UninitLogical", "Finish UninitLogical")));
}

TEST_F(FrameLifecycle, ThePoolsHaveEndedBeforeTheGuardsEndpointIsClosed) {
  std::vector<std::size_t> when_closing;
  guard_.uninit_manager = [&] { when_closing = ThreadsOfPools(); };
  Start();
  TolmLPCFrameUnInit();
  EXPECT_THAT(when_closing, ElementsAre(0, 0, 0, 0));
}

TEST_F(FrameLifecycle, TheFrameCountsAsStartedForEverSoASecondStopRunsAgain) {
  Start(Platform());
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(
      HappenedInOrder({"log Start UninitLogical", "guard.SetProcessGuardStateList A=false",
                       "pool.Stop WebSocket false", "pool.Stop NetCallBack false", "guard.UninitManager",
                       "lpc.StopListen", "lpc.Uninit", "log Finish UninitLogical"}));
}

TEST_F(FrameLifecycle, ATransportThatDoesNotStopListeningIsLoggedAndNotReleased) {
  Start();
  transport_.stop_listen = false;
  transport_.last_error = 14;
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(Journal::Count("lpc.Uninit"), 0u);
  EXPECT_TRUE(HappenedInOrder({"log lpcserver::StopListen() failed,errorcode=14", "log LpcStopListen failed",
                               "log Finish UninitLogical"}));
  EXPECT_TRUE(
      log_.Has(Error("CLpcServerManager::LpcStopListen", "lpcserver::StopListen() failed,errorcode=14")));
  EXPECT_TRUE(log_.Has(Error("CLpcServerManager::LpcUnint", "LpcStopListen failed")));
}

TEST_F(FrameLifecycle, ATransportThatIsNotReleasedIsOnlyLogged) {
  Start();
  transport_.uninit = false;
  transport_.last_error = 9;
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(log_.Has(Error("CLpcServerManager::LpcUnint", "lpcserver::Uninit failed,errorcode=9")));
}

TEST_F(FrameLifecycle, ACallbackThatIsNotRemovedDoesNotKeepTheTransportUp) {
  Start();
  transport_.set_invoke_callback = false;
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(HappenedInOrder({"lpc.SetInvokeCallBack off", "lpc.StopListen", "lpc.Uninit"}));
}

TEST_F(FrameLifecycle, ATransportThatThrowsAtTheStopLetsNoExceptionOut) {
  Start();
  transport_.stop_listen = []() -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(TolmLPCFrameUnInit());
}

TEST_F(FrameLifecycle, AStopDoesNotWaitForAStartThatIsUnderWay) {
  Start();
  Gate gate;
  transport_.init = [&] {
    gate.Wait();
    return true;
  };
  std::jthread second_start([] { TolmLPCFrameInit("endpoint", {}); });
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(gate.Waiting(), 1);
  gate.Open();
}

}  // namespace
}  // namespace tolm::test
