#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "FrameScript.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kRegister[] = "/QOMI/Vantrel/Integration/V1/Register";
constexpr char kMessages[] = "/QOMI/Vantrel/Integration/V1/Messages";
constexpr char kToHost[] = "pool.Post MainFrameWork CURLTask";
constexpr char kToPlugin[] = "pool.Post Plugins CURLTask";

class FrameDispatch : public FrameTest {
 protected:
  FrameDispatch() {
    Serve("B", "/b");
    Serve("B", "/b/<ID>");
    RegisterHost();
    FromNowOn();
  }

  /// One url message, decided on; no pool runs.
  static void Dispatch(const std::string& url, const Message& message) {
    Registry().URLCallBackEIT(url, "", message.Record());
  }

  /// Where a message to `url` goes.
  static std::vector<std::string> WhereGoes(const std::string& url) {
    Journal::Clear();
    Dispatch(url, Message().From("A").Url(url));
    return Journal::Of("pool.");
  }

  static void Forward(const std::string& url, const Message& message) {
    Registry().PluginURLAddressForward(url, message.Record());
  }

  static Message Request() {
    return Message()
        .From("A")
        .Url("/B?x=1")
        .Param("schema", "s")
        .Param("extra", "e")
        .Body("question")
        .WantsReply(9);
  }
  static Message Notification() { return Message().From("A").Url("/B?x=1").Param("extra", "e").Body("news"); }

  /// The time-out with which a request with these two values is forwarded.
  int TimeOutWith(const Message& request) {
    Forward("/b", request);
    return transport_.WaitingSends().back().time_out;
  }

  static LogLine ForwardError(const std::string& text) {
    return Error("CLPCIntegrate::PluginURLAddressForward", text);
  }
  static LogLine PluginToPlugin(const std::string& url, const std::string& dst, const std::string& src) {
    return Trace("CLPCIntegrate::PluginURLAddressForward",
                 "PluginURLAddressForward. plugin to plugin [url=" + url + "],[dstid=" + dst +
                     "],[srcid=" + src + "]");
  }
};

// Deciding.

TEST_F(FrameDispatch, AUrlMessageIsLoggedWithBothFormsOfItsUrl) {
  Registry().URLCallBackEIT("/Api/42/X?y=1", "7", Message().From("A").To("0").Body("text").Record());
  EXPECT_THAT(
      LinesOf("::URLCallBackEIT"),
      ElementsAre(Trace("CLPCIntegrate::URLCallBackEIT",
                        "url call src_id=[A], dst_id=[0], ori_url[/Api/42/X?y=1], cov_urr[/Api/<ID>/X], "
                        "lpc_body =[text], mt_method[7]")));
}

TEST_F(FrameDispatch, ARegistrationIsHandledAtOnce) {
  Dispatch(kRegister, Message().From("C").Body(R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/c"}]}})"));
  std::string id;
  EXPECT_TRUE(Registry().FindDstIdByUrl(id, "/c"));
  EXPECT_EQ(id, "C");
  EXPECT_THAT(Journal::Of("pool."), IsEmpty());
  EXPECT_THAT(Journal::Of("host"), IsEmpty());
}

TEST_F(FrameDispatch, ARegistrationMayHaveAQueryAndFurtherSlashes) {
  EXPECT_THAT(WhereGoes(std::string(kRegister) + "?x=1"), IsEmpty());
  EXPECT_THAT(WhereGoes(std::string(kRegister) + "/"), IsEmpty());
  EXPECT_THAT(WhereGoes("/" + std::string(kRegister)), IsEmpty());
}

TEST_F(FrameDispatch, ARegistrationInAnotherCaseGoesToTheHost) {
  EXPECT_THAT(WhereGoes("/qomi/vantrel/integration/v1/register"), ElementsAre(kToHost));
  EXPECT_THAT(WhereGoes(std::string(kRegister) + "/x"), ElementsAre(kToHost));
}

TEST_F(FrameDispatch, ARegistrationInAnotherCaseGoesToThePluginThatServesIt) {
  Serve("B", kRegister);
  EXPECT_THAT(WhereGoes("/qomi/vantrel/integration/v1/register"), ElementsAre(kToPlugin));
  EXPECT_THAT(WhereGoes(kRegister), IsEmpty());
}

TEST_F(FrameDispatch, AUrlThatAPluginServesGoesToThePluginsPool) {
  EXPECT_THAT(WhereGoes("/B"), ElementsAre(kToPlugin));
  EXPECT_THAT(WhereGoes("/b?x"), ElementsAre(kToPlugin));
  EXPECT_THAT(WhereGoes("/b/42"), ElementsAre(kToPlugin));
}

TEST_F(FrameDispatch, EveryOtherUrlGoesToTheHostsPool) {
  EXPECT_THAT(WhereGoes("/nobody"), ElementsAre(kToHost));
  EXPECT_THAT(WhereGoes("/b/x"), ElementsAre(kToHost));
  EXPECT_THAT(WhereGoes("/"), ElementsAre(kToHost));
}

TEST_F(FrameDispatch, TheFramesSecondUrlGoesToTheHost) {
  EXPECT_THAT(WhereGoes(kMessages), ElementsAre(kToHost));
}

TEST_F(FrameDispatch, ATaskOfAnUnknownKindIsAnError) {
  for (const int kind : {2, -1, 100}) {
    FromNowOn();
    Registry().URLTaskEIT(kind, "/b", Request().Record());
    EXPECT_THAT(log_.Lines(), ElementsAre(Error("CLPCIntegrate::URLTaskEIT", "URL is wrong")));
    EXPECT_THAT(Journal::Entries(), SizeIs(1));
  }
}

TEST_F(FrameDispatch, ATaskRunsWhatItsKindSays) {
  CURLTask(0, "/x", Request().Record()).Run();
  EXPECT_EQ(host_.Count(), 1u);
  CURLTask(1, "/b", Request().Record()).Run();
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.SendAndWait B", "lpc.Reply A"));
}

// To the host.

TEST_F(FrameDispatch, TheHostGetsTheWholeMessage) {
  Registry().URLTaskEIT(0, "/cut", Request().Record());
  LPCData expected;
  expected.src_id = "A";
  expected.dst_id = "0";
  expected.url = "/B?x=1";
  expected.schema = "s";
  expected.msg_id = 9;
  expected.body = "question";
  EXPECT_EQ(host_.Only().LpcMsgType, 0);
  EXPECT_TRUE(host_.Only().lpc_data == expected);
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
}

TEST_F(FrameDispatch, AHostThatThrowsIsSurvived) {
  host_.answer = [](const FrameCallBackData&) -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(Registry().URLTaskEIT(0, "/x", Request().Record()));
}

// From plugin to plugin, with an answer.

TEST_F(FrameDispatch, ARequestIsForwardedAndItsAnswerGoesBack) {
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response = {"B", {{"k", "v"}}, std::string("an\0swer", 7)};
    return true;
  };
  Forward("/B", Request());
  ASSERT_THAT(transport_.WaitingSends(), SizeIs(1));
  const WaitingSend sent = transport_.WaitingSends()[0];
  EXPECT_EQ(sent.request.dst_id, "B");
  EXPECT_EQ(sent.request.body, "question");
  EXPECT_THAT(sent.request.params,
              ElementsAre(Pair("extra", "e"), Pair("schema", "s"), Pair("url", "/B?x=1")));
  EXPECT_EQ(sent.url, "");
  EXPECT_EQ(sent.time_out, 5000);
  ASSERT_THAT(transport_.Replies(), SizeIs(1));
  EXPECT_EQ(transport_.Replies()[0].msg_id, 9u);
  EXPECT_EQ(transport_.Replies()[0].dst_id, "A");
  EXPECT_THAT(transport_.Replies()[0].params, ElementsAre(Pair("k", "v")));
  EXPECT_EQ(transport_.Replies()[0].body, std::string("an\0swer", 7));
  EXPECT_THAT(log_.Lines(), ElementsAre(PluginToPlugin("/B", "B", "A")));
  EXPECT_EQ(host_.Count(), 0u);
}

TEST_F(FrameDispatch, TheTimeOutOfAForwardIsTheMessagesOwn) {
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "200")), 200);
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "200").Param("Timeout", "9000")), 200);
  EXPECT_EQ(TimeOutWith(Request().Param("Timeout", "9000")), 9000);
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "").Param("Timeout", "9000")), 9000);
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "1")), 1);
}

TEST_F(FrameDispatch, WithoutOneTheTimeOutOfAForwardIs5000AndNotTheUrls) {
  Serve("B", "/b", 60000);
  EXPECT_EQ(TimeOutWith(Request()), 5000);
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "")), 5000);
  EXPECT_EQ(TimeOutWith(Request().Param("timeout", "").Param("Timeout", "")), 5000);
  EXPECT_EQ(TimeOutWith(Request().Param("TIMEOUT", "7")), 5000);
}

TEST_F(FrameDispatch, AMalformedTimeOutNeverThrows) {
  for (const char* value : {"abc", "-5", "12abc", " 7", "+7", "99999999999999999999", "-99999999999999999999",
                            "1e9", "0x10", "2147483648", ".", "-", " "}) {
    EXPECT_NO_THROW(Forward("/b", Request().Param("timeout", value))) << value;
  }
  EXPECT_THAT(transport_.WaitingSends(), SizeIs(13));
  EXPECT_LE(TimeOutWith(Request().Param("timeout", "-5")), 0);
}

TEST_F(FrameDispatch, AForwardThatFailsIsLoggedAndTheSenderGetsNoReply) {
  transport_.send_and_wait = false;
  transport_.last_error = 8;
  Forward("/b", Request());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(PluginToPlugin("/b", "B", "A"), ForwardError("Send faild, the error code is 8.")));
  EXPECT_THAT(transport_.Replies(), IsEmpty());
}

TEST_F(FrameDispatch, AReplyThatFailsIsLogged) {
  transport_.reply = false;
  transport_.last_error = 6;
  Forward("/b", Request());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(PluginToPlugin("/b", "B", "A"), ForwardError("Reply faild, the error code is 6.")));
}

// From plugin to plugin, without an answer.

TEST_F(FrameDispatch, ANotificationIsForwarded) {
  Forward("/b", Notification());
  ASSERT_THAT(transport_.Notifications(), SizeIs(1));
  EXPECT_EQ(transport_.Notifications()[0].dst_id, "B");
  EXPECT_EQ(transport_.Notifications()[0].body, "news");
  EXPECT_THAT(transport_.Notifications()[0].params, ElementsAre(Pair("extra", "e"), Pair("url", "/B?x=1")));
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Notify B"));
  EXPECT_THAT(log_.Lines(), ElementsAre(PluginToPlugin("/b", "B", "A")));
}

TEST_F(FrameDispatch, ANotificationThatFailsIsLogged) {
  transport_.notify = false;
  transport_.last_error = 6;
  Forward("/b", Notification());
  EXPECT_THAT(log_.Lines(), ElementsAre(PluginToPlugin("/b", "B", "A"),
                                        ForwardError("Notify faild, the error code is 6.")));
}

// Nobody to forward to.

TEST_F(FrameDispatch, AUrlThatNobodyServesAnyMoreIsLoggedAndTheMessageDropped) {
  Registry().URLTaskEIT(1, "/Gone/<ID>", Request().Record());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(ForwardError("PluginURLAddressForward. FindDstIdByUrl failed[/Gone/<ID>]")));
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
  EXPECT_EQ(host_.Count(), 0u);
}

TEST_F(FrameDispatch, ATaskThatRunsAfterTheUrlsWereForgottenFindsNobody) {
  CURLTask task(1, "/b", Request().Record());
  Registry().UnInit();
  FromNowOn();
  task.Run();
  EXPECT_THAT(log_.Lines(), ElementsAre(ForwardError("PluginURLAddressForward. FindDstIdByUrl failed[/b]")));
}

TEST_F(FrameDispatch, AUrlOfTheHostsOwnIdIsNeverForwarded) {
  Serve("0", "/zero");
  EXPECT_THAT(WhereGoes("/zero"), ElementsAre(kToPlugin));
  FromNowOn();
  Forward("/zero", Request());
  Forward("/zero", Notification());
  EXPECT_THAT(log_.Lines(), ElementsAre(PluginToPlugin("/zero", "0", "A"),
                                        ForwardError("the id for the url is empty or kMainCompnentID."),
                                        PluginToPlugin("/zero", "0", "A"),
                                        ForwardError("the id for the url is empty or kMainCompnentID.")));
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
  EXPECT_EQ(host_.Count(), 0u);
}

TEST_F(FrameDispatch, AUrlOfTheEmptyIdIsNeverForwarded) {
  Serve("", "/empty");
  FromNowOn();
  Forward("/empty", Request());
  EXPECT_THAT(log_.Lines(), ElementsAre(PluginToPlugin("/empty", "", "A"),
                                        ForwardError("the id for the url is empty or kMainCompnentID.")));
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
}

// Through the whole frame.

TEST_F(FrameDispatch, APluginsRequestToAnotherPluginTravelsThroughTheFrame) {
  Start(Plugins({"A", "B"}));
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response.body = "answer";
    return true;
  };
  transport_.Deliver(Request());
  ASSERT_TRUE(WaitFor([&] { return transport_.Replies().size() == 1; }));
  EXPECT_EQ(transport_.Replies()[0].body, "answer");
  EXPECT_EQ(transport_.Replies()[0].msg_id, 9u);
}

TEST_F(FrameDispatch, AForwardedMessageIsLoggedWithTheConvertedUrlWhoseCaseIsKept) {
  Start(Plugins({"A", "B"}));
  transport_.Deliver(Message().From("A").Url("/B/42?x=1"));
  EXPECT_TRUE(WaitFor([&] { return transport_.Notifications().size() == 1; }));
  EXPECT_TRUE(log_.Has(PluginToPlugin("/B/<ID>", "B", "A")));
  EXPECT_EQ(transport_.Notifications()[0].params.at("url"), "/B/42?x=1");
}

TEST_F(FrameDispatch, ARegistrationThroughTheTransportTakesEffect) {
  Start(Plugins({"C"}));
  transport_.Deliver(Registration("C", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/c"}]}})"));
  int time_out = 0;
  EXPECT_TRUE(WaitFor([&] { return IsPluginURL(time_out, "/C"); }));
  EXPECT_TRUE(WaitFor([&] { return IsPluginURL(time_out, "/c") && time_out == 5000; }));
}

TEST_F(FrameDispatch, APluginThatAnswersSlowlyHoldsUpNoMessageForTheHost) {
  Start();
  Gate gate;
  transport_.send_and_wait = [&](tag_LPCResponseData&, const WaitingSend&) {
    gate.Wait();
    return true;
  };
  for (int i = 0; i < 35; ++i) transport_.Deliver(Request());
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 30; }));
  transport_.Deliver(Message().From("A").Url("/host"));
  EXPECT_TRUE(WaitFor([&] { return host_.Count() == 1; }));
  gate.Open();
  EXPECT_TRUE(WaitFor([&] { return transport_.Replies().size() == 35; }));
}

TEST_F(FrameDispatch, NoLockIsHeldWhileAMessageIsForwarded) {
  transport_.send_and_wait = [&](tag_LPCResponseData&, const WaitingSend&) {
    Serve("C", "/b");
    Registry().SetPluginData(Plugins({"A"}));
    return true;
  };
  transport_.reply = [&](const tag_LPCReplyData&) {
    Registry().UnInit();
    return true;
  };
  Forward("/b", Request());
  EXPECT_TRUE(HappenedInOrder({"lpc.SendAndWait B", "lpc.Reply A"}));
}

TEST_F(FrameDispatch, ATransportThatThrowsIsSurvivedByThePool) {
  Start();
  transport_.send_and_wait = [](tag_LPCResponseData&, const WaitingSend&) -> bool {
    throw std::runtime_error("scripted");
  };
  transport_.Deliver(Request());
  ASSERT_TRUE(WaitFor([&] { return transport_.WaitingSends().size() == 1; }));
  transport_.send_and_wait = true;
  transport_.Deliver(Request());
  EXPECT_TRUE(WaitFor([&] { return transport_.Replies().size() == 1; }));
}

}  // namespace
}  // namespace tolm::test
