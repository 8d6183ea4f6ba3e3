#include <cstdint>
#include <string>

#include "GuardScene.h"
#include "TolmBase/StringUtil.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The whole frame's stop, with what it does to guard and agent.
class GuardStop : public GuardTest {
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
    const std::string folder = Tolm::Base::StringUtil::StringReplace(Folder(), "\\", "\\\\");
    return "process.Remove wmic process where ExecutablePath=\"" + folder + "TolmAgent\\\\" + program +
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

// Stopping: a guard that accepts the list.

TEST_F(GuardStop, WithAGuardThatAnswersThePluginsEndFirstAndTheGuardIsToldThen) {
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

TEST_F(GuardStop, OfTypeOneTheGuardIsToldAndThenTheAgentEnds) {
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

TEST_F(GuardStop, WithAGuardThatDoesNotAnswerItIsToldBeforeThePluginsAndOnce) {
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

TEST_F(GuardStop, OfTypeOneWithoutAnAnswerTheAgentEndsBeforeThePluginsAndTheGuardIsNotTold) {
  Prepare(1);
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_TRUE(HappenedInOrder({"net.Send 7 SetProcessGuardStateList", "wait 3000", kOpenEvent, "event.Set",
                               RemoveGuard(), RemoveAgent(), "lpc.Send A", kAllUninited}));
  EXPECT_THAT(net_.Sent("NotifyFrameUninit"), IsEmpty());
  EXPECT_EQ(Journal::Count("event.Set"), 1u);
  EXPECT_EQ(Journal::Of("process.").size(), 2u);
  ExpectTheRestToEndBehind(kAllUninited);
}

TEST_F(GuardStop, WithoutAGuardItIsAskedAllTheSame) {
  StartWithPort(Plugins({"A"}));
  net_.send = 1;
  FromNowOn();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_THAT(Journal::Of("net."), ElementsAre("net.Send -1 SetProcessGuardStateList",
                                               "net.Send -1 NotifyFrameUninit", "net.Stop 1"));
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 3000"));
}

TEST_F(GuardStop, ASecondStopAsksTheGuardAgain) {
  StartWithPort(Plugins({"A"}, 1));
  TolmLPCFrameUnInit();
  FromNowOn();
  net_.Reset();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(net_.Sent("SetProcessGuardStateList").size(), 1u);
  EXPECT_THAT(Journal::Of("process."), ElementsAre(RemoveGuard(), RemoveAgent()));
}

TEST_F(GuardStop, TheGuardsListHasEveryPluginByItsPluginIdSortedAndNotWatched) {
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

TEST_F(GuardStop, AnAnswerThatComesWhileTheFrameStopsWakesTheStop) {
  Prepare(0);
  AnswerOverTheWire();
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  // It was not the time-out: that would have been told before the plugins.
  EXPECT_TRUE(HappenedInOrder({"lpc.Send A", "net.Send 7 NotifyFrameUninit"}));
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
}

TEST_F(GuardStop, EventsBehindTheStopReachNobody) {
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

}  // namespace
}  // namespace tolm::test
