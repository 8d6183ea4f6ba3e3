#include <atomic>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "FrameScript.h"
#include "LinkWitness.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class FrameServerManager : public FrameTest {
 protected:
  /// Plays one inbound record without a transport and without pools that run.
  static bool Receive(const Message& message) {
    return CLpcServerManager::LPCServerCallback(message, nullptr);
  }

  /// The line of the task that a url message became, as "url|MT".
  std::string UrlAndMT(const std::string& url) {
    FromNowOn();
    Start();
    Receive(Message().From("A").Url(url));
    EXPECT_TRUE(WaitFor([&] { return host_.Count() == 1; })) << url;
    const std::string text = LinesOf("::URLCallBackEIT").at(0).text;
    const auto between = [&text](const std::string& from) {
      const std::size_t begin = text.find(from) + from.size();
      return text.substr(begin, text.find(']', begin) - begin);
    };
    return between("ori_url[") + "|" + between("mt_method[");
  }

  static FrameCallBackData Event(std::int32_t kind) {
    FrameCallBackData data;
    data.LpcMsgType = kind;
    return data;
  }
};

// Up and down.

TEST_F(FrameServerManager, InitialisingPreparesInstallsAndListens) {
  EXPECT_TRUE(Manager().LpcInit("name"));
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("lpc.Init", "lpc.SetInvokeCallBack on", "lpc.StartListen name"));
  EXPECT_THAT(transport_.CallbackUsers(), ElementsAre(&Manager()));
}

TEST_F(FrameServerManager, InitialisingFailsWithTheFirstOperationThatFails) {
  transport_.last_error = 5;
  transport_.start_listen = false;
  EXPECT_FALSE(Manager().LpcInit("name"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Error("CLpcServerManager::LpcStartListen",
                                "[CDrexNetWorkManager::StartLPCServer] StartListen failed, error code = 5"),
                          Error("CLpcServerManager::LpcInit", "LpcStartListen failed,lpc_server_name=name")));
  FromNowOn();
  transport_.set_invoke_callback = false;
  EXPECT_FALSE(Manager().LpcInit("name"));
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Error("CLpcServerManager::LpcStartListen",
                        "[CDrexNetWorkManager::StartLPCServer] SetInvokeCallBack failed, error code = 5"),
                  Error("CLpcServerManager::LpcInit", "LpcStartListen failed,lpc_server_name=name")));
  FromNowOn();
  transport_.init = false;
  EXPECT_FALSE(Manager().LpcInit("name"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Error("CLpcServerManager::LpcInit", "lpcserver::Init failed,errorcode=5")));
}

TEST_F(FrameServerManager, ReleasingRemovesTheCallbackStopsAndReleases) {
  EXPECT_TRUE(Manager().LpcUnint());
  EXPECT_THAT(Journal::Entries(), ElementsAre("lpc.SetInvokeCallBack off", "lpc.StopListen", "lpc.Uninit"));
  EXPECT_THAT(transport_.CallbackUsers(), ElementsAre(&Manager()));
}

TEST_F(FrameServerManager, ReleasingEndsWhereListeningCannotBeStopped) {
  transport_.stop_listen = false;
  transport_.last_error = 2;
  EXPECT_FALSE(Manager().LpcUnint());
  EXPECT_THAT(log_.Lines(), ElementsAre(Error("CLpcServerManager::LpcStopListen",
                                              "lpcserver::StopListen() failed,errorcode=2"),
                                        Error("CLpcServerManager::LpcUnint", "LpcStopListen failed")));
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.SetInvokeCallBack off", "lpc.StopListen"));
}

TEST_F(FrameServerManager, ReleasingFailsWhenTheTransportIsNotReleased) {
  transport_.uninit = false;
  transport_.last_error = 2;
  EXPECT_FALSE(Manager().LpcUnint());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Error("CLpcServerManager::LpcUnint", "lpcserver::Uninit failed,errorcode=2")));
}

TEST_F(FrameServerManager, StoppingToListenTellsWhetherThatWorked) {
  EXPECT_TRUE(Manager().LpcStopListen());
  transport_.stop_listen = false;
  EXPECT_FALSE(Manager().LpcStopListen());
  EXPECT_EQ(Journal::Count("lpc.Uninit"), 0u);
}

// Sorting what comes in.

TEST_F(FrameServerManager, AMessageWithAUrlBecomesAUrlTask) {
  EXPECT_TRUE(Receive(Message().From("A").Url("/a/b").Push("tag").Param("method", "InitFinish")));
  EXPECT_THAT(Journal::Of("pool."), ElementsAre("pool.Post NetCallBack CURLCallBackTask"));
}

TEST_F(FrameServerManager, AMessageWithNeitherUrlNorTagBecomesAMethodTaskWhateverItsMethod) {
  EXPECT_TRUE(Receive(Message().From("A")));
  EXPECT_TRUE(Receive(Message().From("A").Param("method", "GET")));
  EXPECT_TRUE(Receive(Message().From("A").Url("").Push("")));
  EXPECT_TRUE(Receive(InitFinish("A")));
  EXPECT_THAT(
      Journal::Of("pool."),
      ElementsAre("pool.Post NetCallBack CMethodCallBackTask", "pool.Post NetCallBack CMethodCallBackTask",
                  "pool.Post NetCallBack CMethodCallBackTask", "pool.Post NetCallBack CMethodCallBackTask"));
}

TEST_F(FrameServerManager, AUrlThatIsOnlyAQueryCountsAsNone) {
  RegisterHost();
  EXPECT_TRUE(Receive(Message().From("A").Url("?MT=1")));
  EXPECT_THAT(Journal::Of("pool."), ElementsAre("pool.Post NetCallBack CMethodCallBackTask"));
  EXPECT_TRUE(Receive(Message().From("A").Url("?MT=1").Push("tag")));
  EXPECT_EQ(host_.Only().LpcMsgType, kLpcMsgPush);
  EXPECT_EQ(host_.Only().lpc_data.url, "?MT=1");
}

TEST_F(FrameServerManager, APushReachesTheHostOnTheTransportsThreadBeforeTheCallbackReturns) {
  Start();
  FromNowOn();
  EXPECT_TRUE(transport_.Deliver(
      Message().From("A").Push("tag").Param("method", "m").Param("schema", "s").Body("b").WantsReply(3)));
  ASSERT_THAT(host_.Calls(), SizeIs(1));
  EXPECT_EQ(host_.Calls()[0].thread, std::this_thread::get_id());
  EXPECT_THAT(Journal::Of("pool."), IsEmpty());
  EXPECT_EQ(host_.Only().LpcMsgType, 1);
  LPCData expected;
  expected.dst_id = "0";
  expected.src_id = "A";
  expected.push_msg_tag = "tag";
  expected.method = "m";
  expected.schema = "s";
  expected.body = "b";
  expected.msg_id = 3;
  EXPECT_TRUE(host_.Only().lpc_data == expected);
}

TEST_F(FrameServerManager, EveryInboundMessageIsLoggedWithoutItsQueryAtTheOddLevelOfThatLine) {
  RegisterHost();
  Receive(Message().From("A").Url("/a/b?MT=7&x=1").WantsReply(18446744073709551615u));
  Receive(Message().From("B").Push("tag"));
  Receive(Message().From("C"));
  EXPECT_THAT(LinesOf("::LPCServerCallback"),
              ElementsAre(Line(3, "LPCFrameTrace", "CLpcServerManager::LPCServerCallback",
                               "[LPCServer Callback], url=[/a/b], msg_id[" + std::to_string(ULONG_MAX) +
                                   "], src_id[A]"),
                          Line(3, "LPCFrameTrace", "CLpcServerManager::LPCServerCallback",
                               "[LPCServer Callback], url=[], msg_id[0], src_id[B]"),
                          Line(3, "LPCFrameTrace", "CLpcServerManager::LPCServerCallback",
                               "[LPCServer Callback], url=[], msg_id[0], src_id[C]")));
}

TEST_F(FrameServerManager, AnInboundMessageIsLoggedBeforeItIsPassedOn) {
  RegisterHost();
  Receive(Message().From("B").Push("tag"));
  EXPECT_TRUE(HappenedInOrder({"log [LPCServer Callback], url=[], msg_id[0], src_id[B]", "host 1 B"}));
  Receive(Message().From("A").Url("/a"));
  EXPECT_TRUE(HappenedInOrder({"log [LPCServer Callback], url=[/a], msg_id[0], src_id[A]",
                               "pool.Post NetCallBack CURLCallBackTask"}));
}

TEST_F(FrameServerManager, AUrlTaskHasTheUrlWithoutQueryAndTheQuerysMT) {
  EXPECT_EQ(UrlAndMT("/a/b?MT=7&x=1"), "/a/b|7");
  EXPECT_EQ(UrlAndMT("/a/b"), "/a/b|");
  EXPECT_EQ(UrlAndMT("/a/b?"), "/a/b|");
  EXPECT_EQ(UrlAndMT("/a/b?x=1&MT=7"), "/a/b|7");
}

TEST_F(FrameServerManager, OfSeveralMTsTheLastCounts) {
  EXPECT_EQ(UrlAndMT("/a?MT=1&MT=2"), "/a|2");
  EXPECT_EQ(UrlAndMT("/a?MT=1&MT="), "/a|");
}

TEST_F(FrameServerManager, AQueryIsTakenApartAtTheFirstSigns) {
  EXPECT_EQ(UrlAndMT("/a?MT=x=y"), "/a|x=y");
  EXPECT_EQ(UrlAndMT("/a?MT=x?MT=y"), "/a|x?MT=y");
  EXPECT_EQ(UrlAndMT("/a?MT=1&MT"), "/a|1");
  EXPECT_EQ(UrlAndMT("/a?&&MT=1&&"), "/a|1");
  EXPECT_EQ(UrlAndMT("/a?x?MT=1"), "/a|");
  EXPECT_EQ(UrlAndMT("/a?mt=1"), "/a|");
  EXPECT_EQ(UrlAndMT("/a?=1&MT=%20+"), "/a|%20+");
}

TEST_F(FrameServerManager, AnInboundMessageIsNeverRejected) {
  EXPECT_TRUE(Receive(Message().From("A").Push("nobody listens")));
  RegisterHost();
  host_.answer = false;
  EXPECT_TRUE(Receive(Message().From("A").Push("the host says no")));
  host_.answer = [](const FrameCallBackData&) -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(EXPECT_TRUE(Receive(Message().From("A").Push("the host throws"))));
}

// Calling the host.

TEST_F(FrameServerManager, WithoutAHostACallIsAnErrorLine) {
  EXPECT_FALSE(Manager().CallLpcCallBack(Event(0)));
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Error("CLpcServerManager::CallLpcCallBack",
                        "The caller has not called the RegisterLpcMsgCallback interface to set callback_.")));
}

TEST_F(FrameServerManager, AfterTheReleaseThereIsNoHostAnyMore) {
  RegisterHost();
  Manager().LpcUnint();
  FromNowOn();
  EXPECT_FALSE(Manager().CallLpcCallBack(Event(0)));
  EXPECT_EQ(host_.Count(), 0u);
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Error("CLpcServerManager::CallLpcCallBack",
                        "The caller has not called the RegisterLpcMsgCallback interface to set callback_.")));
}

TEST_F(FrameServerManager, TheHostIsRemovedBeforeTheTransportIsStopped) {
  RegisterHost();
  transport_.set_invoke_callback = [&](bool) {
    EXPECT_FALSE(Manager().CallLpcCallBack(Event(0)));
    return true;
  };
  EXPECT_TRUE(Manager().LpcUnint());
  EXPECT_EQ(host_.Count(), 0u);
}

TEST_F(FrameServerManager, ACallLogsEveryFieldAndTheWholeBodyButNoSessionId) {
  RegisterHost();
  FromNowOn();
  FrameCallBackData data = Event(3);
  data.lpc_data.msg_type = 2;
  data.lpc_data.dst_id = "D";
  data.lpc_data.dst_type = 4;
  data.lpc_data.src_id = "S";
  data.lpc_data.url = std::string("/u?SID=") + kSid;
  data.lpc_data.method = "M";
  data.lpc_data.push_msg_tag = "T";
  data.lpc_data.body = std::string(100000, 'b');
  EXPECT_TRUE(Manager().CallLpcCallBack(data));
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Trace("CLpcServerManager::CallLpcCallBack",
                        std::string("CallLpcCallBack LpcMsgType[3], msg_type[2], dst_id =[D],dst_type =[4],"
                                    "src_id =[S],url =[/u?SID=") +
                            kMaskedSid + "],method =[M],push_msg_tag =[T],body=[" + std::string(100000, 'b') +
                            "]")));
  EXPECT_TRUE(host_.Only().lpc_data == data.lpc_data);
  EXPECT_EQ(Journal::Entries().back(), "host 3 S");
}

TEST_F(FrameServerManager, ACallGivesTheHostsAnswer) {
  RegisterHost();
  EXPECT_TRUE(Manager().CallLpcCallBack(Event(0)));
  host_.answer = false;
  EXPECT_FALSE(Manager().CallLpcCallBack(Event(0)));
}

TEST_F(FrameServerManager, AHostThatThrowsIsLoggedAndTheCallFails) {
  RegisterHost();
  FromNowOn();
  host_.answer = [](const FrameCallBackData&) -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(EXPECT_FALSE(Manager().CallLpcCallBack(Event(0))));
  EXPECT_THAT(log_.Lines(), SizeIs(2));
  EXPECT_EQ(log_.Lines().back().level, 5);
  FromNowOn();
  host_.answer = [](const FrameCallBackData&) -> bool { throw 7; };
  EXPECT_NO_THROW(EXPECT_FALSE(Manager().CallLpcCallBack(Event(0))));
  EXPECT_THAT(log_.Lines(), SizeIs(2));
  EXPECT_EQ(log_.Lines().back().level, 5);
}

TEST_F(FrameServerManager, AHostThatThrowsOnAPoolsThreadGetsTheNextMessage) {
  Start();
  std::atomic<int> calls{0};
  host_.answer = [&](const FrameCallBackData&) -> bool {
    if (++calls == 1) throw std::runtime_error("scripted");
    return true;
  };
  transport_.Deliver(Message().From("A").Url("/x"));
  ASSERT_TRUE(WaitFor([&] { return calls == 1; }));
  transport_.Deliver(Message().From("A").Url("/x"));
  EXPECT_TRUE(WaitFor([&] { return calls == 2; }));
}

TEST_F(FrameServerManager, TheHostIsCalledWithNoLockHeld) {
  Start(Plugins({"A"}));
  host_.answer = [&](const FrameCallBackData&) {
    RegisterHost();
    RegisterUrl({"/host"});
    int time_out = 0;
    IsPluginURL(time_out, "/x");
    std::vector<std::string> headers;
    GetHttpHeaders(headers);
    Registry().PluginURLRegister(Registration("A", R"({"RegisterInfo":{"SupportHttpHeaderList":["X"]}})"));
    return true;
  };
  EXPECT_TRUE(transport_.Deliver(Message().From("A").Push("tag")));
  EXPECT_TRUE(transport_.Deliver(Connected("A")));
  EXPECT_TRUE(transport_.Deliver(InitFinish("A")));
  EXPECT_TRUE(WaitFor([&] { return host_.Count() == 3; }));
}

TEST_F(FrameServerManager, TheHostIsCalledOnSeveralThreadsAtOnce) {
  Start();
  std::atomic<int> came{0};
  std::atomic<int> met{0};
  std::atomic<int> left{0};
  host_.answer = [&](const FrameCallBackData&) {
    ++came;
    if (WaitFor([&] { return came == 3; })) ++met;
    ++left;
    return true;
  };
  {
    std::jthread one([&] { transport_.Deliver(Message().From("A").Push("tag")); });
    std::jthread two([&] { transport_.Deliver(Message().From("B").Push("tag")); });
    transport_.Deliver(Message().From("C").Url("/x"));
  }
  EXPECT_TRUE(WaitFor([&] { return left == 3; }));
  EXPECT_EQ(met, 3);
}

TEST_F(FrameServerManager, WhatNobodyWantsLoggedIsNotMaskedForTheHostEither) {
  RegisterHost();
  log_.SetLevel(5);
  const int before = g_masked_urls;
  FrameCallBackData data = Event(0);
  data.lpc_data.url = std::string("/u?SID=") + kSid;
  EXPECT_TRUE(Manager().CallLpcCallBack(data));
  EXPECT_EQ(g_masked_urls, before);
}

// Forwarding.

TEST_F(FrameServerManager, TheTransportsOperationsAreForwarded) {
  transport_.send = 5;
  transport_.last_error = 6;
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response.body = "answer";
    return true;
  };
  EXPECT_EQ(Manager().SendRequest({"A", {{"k", "v"}}, ""}, "b"), 5u);
  tag_LPCResponseData response;
  EXPECT_TRUE(Manager().SendAndWait(response, {"B", {}, ""}, "b", "/url", 99));
  EXPECT_TRUE(Manager().Reply({7, "C", {}, ""}, "b"));
  EXPECT_TRUE(Manager().Notify({"D", {}, ""}, "b"));
  EXPECT_EQ(Manager().GetLastError(), 6);
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("lpc.Send A", "lpc.SendAndWait B", "lpc.Reply C", "lpc.Notify D"));
  EXPECT_EQ(transport_.Requests()[0].params.at("k"), "v");
  EXPECT_EQ(response.body, "answer");
  EXPECT_EQ(transport_.WaitingSends()[0].url, "/url");
  EXPECT_EQ(transport_.WaitingSends()[0].time_out, 99);
  EXPECT_EQ(transport_.Replies()[0].msg_id, 7u);
  EXPECT_EQ(transport_.Requests()[0].body + transport_.WaitingSends()[0].request.body +
                transport_.Replies()[0].body + transport_.Notifications()[0].body,
            "bbbb");

  transport_.send_and_wait = false;
  transport_.reply = false;
  transport_.notify = false;
  EXPECT_FALSE(Manager().SendAndWait(response, {"B", {}, ""}, "b", "/url", 99));
  EXPECT_FALSE(Manager().Reply({7, "C", {}, ""}, "b"));
  EXPECT_FALSE(Manager().Notify({"D", {}, ""}, "b"));
}

}  // namespace
}  // namespace tolm::test
