#include <set>
#include <string>
#include <vector>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr char kFunction[] = "CLPCCommunicateWithTolmGuard::NotifyFrameInitedFinished";
constexpr char kInitFunction[] = "CLPCCommunicateWithTolmGuard::NotifyGuardLPCFrameInit";
constexpr std::int32_t kHandshake = Tolm::Net::kWebsocketHandshake;
constexpr std::int32_t kClose = Tolm::Net::kWebsocketClose;

LogLine Verified(const std::string& name) {
  return Line(3, "LPCFrameTrace", kFunction, "Plugin [" + name + "] verificate success");
}
const LogLine kBegin = Info(kFunction, "Notify FrameInited Finished");
const LogLine kLoad = Line(3, "platform.PluginFrame", kFunction, "Start to Load LPC Plugin");
const LogLine kLoadTrace = Line(3, "LPCFrameTrace", kFunction, "Start to Load LPC Plugin");
const LogLine kInitBegin = Info(kInitFunction, "Notify Guard LPCFrame Init");
/// The level of information with the tag of errors.
const LogLine kInitFailed = Line(3, "LPCFrameError", kInitFunction, "Notify Guard LPCFrame Init failed");
const LogLine kInitDone = Info(kInitFunction, "Notify Guard LPCFrame Init Successfully");

std::string Notice(const std::string& cmdline, const std::string& list) {
  return R"({"guid":"*","requestData":{"method":"NotifyFrameInitState","initState":1)" +
         (cmdline.empty() ? "" : R"(,"cmdline":")" + cmdline + "\"") +
         (list.empty() ? "" : ",\"PluginList\":[" + list + "]") + "}}";
}

/// How the guard is told that the plugins may be started.
class GuardStartNotice : public GuardTest {
 protected:
  /// A guard's coming and going, without server and pool.
  static void Event(std::int32_t socket_id, std::int32_t type) {
    Endpoint().TolmGuardOnRawMsgEIT(socket_id, type, 0, {});
  }
  std::vector<std::string> Notices() const {
    std::vector<std::string> texts;
    for (const SentFrame& frame : net_.Sent("NotifyFrameInitState")) texts.push_back(frame.data);
    return texts;
  }
};

// The first call.

TEST_F(GuardStartNotice, TheFirstCallTellsThatTheFrameIsUpThenWhatMayBeStarted) {
  AnswerDirectly();
  List(Plugins({"B", "A"}));
  Register(7);
  FromNowOn();
  Guard().NotifyFrameInitedFinished("c");
  EXPECT_TRUE(HappenedInOrder(
      {"log Notify FrameInited Finished", "log Notify Guard LPCFrame Init", "net.Send 7 NotifyLPCFrameInit",
       "wait 5000", "log Notify Guard LPCFrame Init Successfully", "log Plugin [A] verificate success",
       "log Plugin [B] verificate success", "log Start to Load LPC Plugin", "log Start to Load LPC Plugin",
       "net.Send 7 NotifyFrameInitState"}));
  EXPECT_THAT(LinesOf(kFunction), ElementsAre(kBegin, Verified("A"), Verified("B"), kLoad, kLoadTrace));
  EXPECT_THAT(LinesOf(kInitFunction), ElementsAre(kInitBegin, kInitDone));
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice("c", R"("A","B")"))));
  EXPECT_TRUE(Guard().IsFrameInitedFinished());
}

TEST_F(GuardStartNotice, AGuardThatDoesNotAnswerIsAskedThreeTimesWithAFreshGuidEach) {
  Register(7);
  FromNowOn();
  Guard().NotifyFrameInitedFinished("");
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 5000", "wait 5000", "wait 5000"));
  std::set<std::string> guids;
  for (const SentFrame& frame : net_.Sent("NotifyLPCFrameInit")) guids.insert(GuidOf(frame.data));
  EXPECT_EQ(guids.size(), 3u);
  EXPECT_THAT(LinesOf(kInitFunction),
              ElementsAre(kInitBegin, kInitFailed, kInitBegin, kInitFailed, kInitBegin, kInitFailed));
  EXPECT_EQ(Notices().size(), 1u);
}

TEST_F(GuardStartNotice, AnAnswerToTheSecondAttemptEndsTheAttempts) {
  Register(7);
  FromNowOn();
  std::jthread answer;
  waits_.how_long = [&](std::int32_t) {
    if (Journal::Count("wait 5000") < 2) return 1;
    const std::string guid = GuidOf(net_.Sent("NotifyLPCFrameInit").back().data);
    answer = std::jthread([guid] { Endpoint().DealMessage(7, Answers("NotifyLPCFrameInit", guid)); });
    return 20000;
  };
  Guard().NotifyFrameInitedFinished("");
  EXPECT_THAT(LinesOf(kInitFunction), ElementsAre(kInitBegin, kInitFailed, kInitBegin, kInitDone));
}

TEST_F(GuardStartNotice, AnyAnswerCountsAsOne) {
  Register(7);
  std::jthread answer;
  WaitForAnswers();
  net_.send = [&](const SentFrame& frame) {
    if (MethodOf(frame.data) != "NotifyLPCFrameInit") return 0;
    answer = std::jthread([guid = GuidOf(frame.data)] {
      Endpoint().DealMessage(7, R"({"code":"-1","msg":"no","guid":")" + guid +
                                    R"(","requestData":{"method":"NotifyLPCFrameInit"}})");
    });
    return 0;
  };
  EXPECT_TRUE(Guard().NotifyGuardLPCFrameInit());
}

TEST_F(GuardStartNotice, ThatTheFrameIsUpIsToldInTheFirstCallOnlyEvenWhenNobodyAnswered) {
  net_.send = 1;
  Guard().NotifyFrameInitedFinished("");
  EXPECT_EQ(net_.Sent("NotifyLPCFrameInit").size(), 3u);
  net_.send = 0;
  Register(7);
  Guard().NotifyFrameInitedFinished("");
  Event(7, kClose);
  Register(8);
  EXPECT_EQ(net_.Sent("NotifyLPCFrameInit").size(), 3u);
}

TEST_F(GuardStartNotice, TheHostsCommandLineReachesTheGuardUnchanged) {
  Register(7);
  TolmLPCFrameNotifyStartPlugins(" --a=\\t ");
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice(" --a=\\\\t ", ""))));
  EXPECT_TRUE(log_.Has(
      Info("TolmLPCFrameNotifyStartPlugins", "TolmLPCFrameNotifyStartPlugins plugin_cmdline[ --a=\\t ]")));
}

// Which plugins.

TEST_F(GuardStartNotice, PluginsAreNamedByTheirPluginIdInKeyOrderAndOnce) {
  PlatformInfo info;
  info.plugin_map["1"].plugin_id = "Z";
  info.plugin_map["2"].plugin_id = "A";
  info.plugin_map["3"].plugin_id = "Z";
  List(info);
  Register(7);
  FromNowOn();
  Guard().NotifyFrameInitedFinished("");
  EXPECT_THAT(LinesOf(kFunction),
              ElementsAre(kBegin, Verified("Z"), Verified("A"), Verified("Z"), kLoad, kLoadTrace));
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice("", R"("Z","A")"))));
}

TEST_F(GuardStartNotice, PluginsThatAreNotVerifiedAreLeftOutSilently) {
  PlatformInfo info = Plugins({"A", "B"});
  info.plugin_map["A"].not_verified = true;
  List(info);
  Register(7);
  FromNowOn();
  Guard().NotifyFrameInitedFinished("");
  EXPECT_THAT(LinesOf(kFunction), ElementsAre(kBegin, Verified("B"), kLoad, kLoadTrace));
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice("", R"("B")"))));
}

TEST_F(GuardStartNotice, APluginThatWasVerifiedStaysInTheListWhenItHasLeftTheRegistry) {
  net_.send = 1;
  List(Plugins({"B"}));
  Guard().NotifyFrameInitedFinished("one");
  List(Plugins({"A"}));
  net_.send = 0;
  Register(7);
  EXPECT_THAT(Notices(), Contains(JsonIs(Notice("one", R"("B","A")"))));
  EXPECT_THAT(VerifiedPlugins(Guard()), ElementsAre("B", "A"));
}

// Once for each connection.

TEST_F(GuardStartNotice, ASecondCallAfterASuccessLogsAndSendsNothing) {
  List(Plugins({"A"}));
  Register(7);
  Guard().NotifyFrameInitedFinished("one");
  FromNowOn();
  Guard().NotifyFrameInitedFinished("two");
  EXPECT_THAT(log_.Lines(), ElementsAre(kBegin, Verified("A"), kLoad, kLoadTrace));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
}

TEST_F(GuardStartNotice, ASecondCallAfterAFailureSends) {
  net_.send = 1;
  Guard().NotifyFrameInitedFinished("one");
  net_.send = 0;
  Guard().NotifyFrameInitedFinished("two");
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice("one", "")), JsonIs(Notice("two", ""))));
  Guard().NotifyFrameInitedFinished("three");
  EXPECT_EQ(Notices().size(), 2u);
}

TEST_F(GuardStartNotice, AGuardThatConnectsBeforeTheAnnouncementIsToldNothingYet) {
  Register(7);
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_FALSE(Guard().IsFrameInitedFinished());
}

TEST_F(GuardStartNotice, AGuardThatConnectsAfterTheAnnouncementIsToldAtItsHandshake) {
  net_.send = [](const SentFrame& frame) { return frame.socket_id == -1 ? 1 : 0; };
  List(Plugins({"A"}));
  Guard().NotifyFrameInitedFinished("c");
  FromNowOn();
  Register(7);
  EXPECT_TRUE(HappenedInOrder({"log recv msg_type:12, socket id :7, error_code = 0", "net.ClientIp 7",
                               "log Get client info:socket id :7, ip =127.0.0.1",
                               "log NotifyFrameInitedFinished", "log Notify FrameInited Finished",
                               "log Plugin [A] verificate success", "net.Send 7 NotifyFrameInitState"}));
  EXPECT_TRUE(log_.Has(Line(3, "LPCFrameTrace", "CTolmGuardConnectManager::TolmGuardOnRawMsgEIT",
                            "NotifyFrameInitedFinished")));
  EXPECT_THAT(NoticesByConnection(), UnorderedElementsAre(Pair(-1, 1), Pair(7, 1)));
  EXPECT_THAT(Notices().back(), JsonIs(Notice("c", R"("A")")));
}

TEST_F(GuardStartNotice, TheNoticeOfAHandshakeNamesThePluginsThatAreKnownByThen) {
  net_.send = 1;
  List(Plugins({"A"}));
  Guard().NotifyFrameInitedFinished("c");
  List(Plugins({"A", "C"}));
  net_.send = 0;
  Register(7);
  EXPECT_THAT(Notices().back(), JsonIs(Notice("c", R"("A","C")")));
}

TEST_F(GuardStartNotice, AHandshakeThatRepeatsIsNotToldTwice) {
  Register(7);
  Guard().NotifyFrameInitedFinished("c");
  FromNowOn();
  Register(7);
  EXPECT_TRUE(log_.Has(Line(3, "LPCFrameTrace", "CTolmGuardConnectManager::TolmGuardOnRawMsgEIT",
                            "NotifyFrameInitedFinished")));
  EXPECT_THAT(LinesOf(kFunction), IsEmpty());
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1)));
}

TEST_F(GuardStartNotice, AGuardThatComesBackAfterACloseIsToldAgainWithTheLatestCommandLine) {
  Register(7);
  Guard().NotifyFrameInitedFinished("one");
  Guard().NotifyFrameInitedFinished("two");
  Event(7, kClose);
  Event(8, kHandshake);
  EXPECT_THAT(Notices(), ElementsAre(JsonIs(Notice("one", "")), JsonIs(Notice("two", ""))));
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1), Pair(8, 1)));
}

TEST_F(GuardStartNotice, AGuardThatRegistersBesideOneThatWasToldIsToldNothingUntilThatOneHasGone) {
  Register(7);
  Guard().NotifyFrameInitedFinished("one");
  Register(8);
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1)));
  Event(7, kClose);
  Register(9);
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1), Pair(9, 1)));
}

TEST_F(GuardStartNotice, ACloseAloneSendsNothing) {
  Register(7);
  Guard().NotifyFrameInitedFinished("one");
  Event(7, kClose);
  EXPECT_EQ(Notices().size(), 1u);
  EXPECT_EQ(Endpoint().GetSessionId(), 7);
}

TEST_F(GuardStartNotice, AHandshakeThatFailedIsNotTold) {
  net_.send = 1;
  Guard().NotifyFrameInitedFinished("one");
  net_.send = 0;
  Endpoint().TolmGuardOnRawMsgEIT(7, kHandshake, 3, {});
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(-1, 1)));
  Register(8);
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(-1, 1), Pair(8, 1)));
}

TEST_F(GuardStartNotice, AnEmptyLatestCommandLineLeavesTheMemberOut) {
  Register(7);
  Guard().NotifyFrameInitedFinished("one");
  Guard().NotifyFrameInitedFinished("");
  Event(7, kClose);
  Event(8, kHandshake);
  EXPECT_THAT(Notices().back(), JsonIs(Notice("", "")));
}

}  // namespace
}  // namespace tolm::test
