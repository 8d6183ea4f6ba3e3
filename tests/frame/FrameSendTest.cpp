#include <cjson/cJSON.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "FrameScript.h"
#include "LinkWitness.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr std::uint64_t kAllOnes = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kUntouched = 4242;

/// While it lives, cJSON gets no memory, so that no document can be printed.
class NoMemoryForDocuments {
 public:
  NoMemoryForDocuments() {
    cJSON_Hooks hooks{[](std::size_t) -> void* { return nullptr; }, [](void*) {}};
    cJSON_InitHooks(&hooks);
  }
  ~NoMemoryForDocuments() { cJSON_InitHooks(nullptr); }
};

class FrameSend : public FrameTest {
 protected:
  FrameSend() {
    List(Plugins({"Ready", "Lazy"}));
    Serve("Ready", "/ready");
    Serve("Lazy", "/lazy");
    Method(InitFinish("Ready"));
    FromNowOn();
  }

  static LPCData To(const std::string& dst_id, const std::string& url = {}) {
    LPCData data;
    data.dst_id = dst_id;
    data.url = url;
    data.src_id = "0";
    data.method = "GET";
    data.body = "body";
    return data;
  }
  static LPCData Request(const std::string& dst_id, const std::string& url = {}) { return To(dst_id, url); }
  static LPCData Reply(const std::string& dst_id, std::uint64_t id, const std::string& url = {}) {
    LPCData data = To(dst_id, url);
    data.msg_type = kMsgTypeReply;
    data.msg_id = id;
    return data;
  }
  static LPCData Notification(const std::string& dst_id, const std::string& url = {}) {
    LPCData data = To(dst_id, url);
    data.msg_type = kMsgTypeNotify;
    return data;
  }

  bool Sync(const LPCData& request, int time_out = 100) { return SyncSend(response_, request, time_out); }
  bool Async(const LPCData& data) { return AsyncSend(id_, data); }

  void ExpectNothingSent() { EXPECT_THAT(Journal::Of("lpc."), IsEmpty()); }

  LPCData response_;
  std::uint64_t id_ = kUntouched;
};

// SyncSend.

TEST_F(FrameSend, ASynchronousSendToAReadyPluginReachesItWithUrlAndTimeOutUnchanged) {
  EXPECT_TRUE(Sync(Request("Ready", "/Any?x=1"), 1234));
  ASSERT_THAT(transport_.WaitingSends(), SizeIs(1));
  const WaitingSend sent = transport_.WaitingSends()[0];
  EXPECT_EQ(sent.request.dst_id, "Ready");
  EXPECT_EQ(sent.request.body, "body");
  EXPECT_THAT(sent.request.params, ElementsAre(Pair("method", "GET"), Pair("url", "/Any?x=1")));
  EXPECT_EQ(sent.url, "/Any?x=1");
  EXPECT_EQ(sent.time_out, 1234);
}

TEST_F(FrameSend, ASynchronousSendPassesAnyTimeOutThrough) {
  Sync(Request("Ready"), 0);
  Sync(Request("Ready"), -5);
  EXPECT_EQ(transport_.WaitingSends()[0].time_out, 0);
  EXPECT_EQ(transport_.WaitingSends()[1].time_out, -5);
}

TEST_F(FrameSend, ASynchronousSendLogsWhatItSends) {
  EXPECT_TRUE(Sync(Request("Ready", "/Any"), -1));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("SyncSend",
                                "[SyncSend] msg_type[0],src_id[0],dst_id[Ready],url[/Any],method[GET], "
                                "time_out[-1]")));
}

TEST_F(FrameSend, ASynchronousSendFindsThePluginByUrl) {
  EXPECT_TRUE(Sync(Request("", "/READY?x=1")));
  EXPECT_EQ(transport_.WaitingSends()[0].request.dst_id, "Ready");
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Trace("SyncSend",
                        "[SyncSend] msg_type[0],src_id[0],dst_id[],url[/READY?x=1],method[GET], "
                        "time_out[100]"),
                  Trace("SyncSend", "[SyncSend] Find DstIdByUrl success, dst_id[Ready], url=[/READY?x=1]")));
}

TEST_F(FrameSend, ASynchronousSendToAUrlThatNobodyServesFails) {
  EXPECT_FALSE(Sync(Request("", "/nobody")));
  ExpectNothingSent();
  EXPECT_THAT(LinesOf("::SyncSend").back(), Error("SyncSend", "FindDstIdByUrl failed, url=[/nobody]"));
  EXPECT_THAT(log_.Lines(), SizeIs(2));
}

TEST_F(FrameSend, ASynchronousSendToANamedPluginThatHasNotInitialisedFailsWithoutSending) {
  EXPECT_FALSE(Sync(Request("Lazy")));
  ExpectNothingSent();
  EXPECT_THAT(LinesOf("::SyncSend").back(),
              Error("SyncSend", "GetPluginInitState failed, dst_id[Lazy] has not inited"));
}

TEST_F(FrameSend, ASynchronousSendToAFoundPluginThatHasNotInitialisedFailsWithoutSending) {
  EXPECT_FALSE(Sync(Request("", "/lazy")));
  ExpectNothingSent();
  EXPECT_THAT(LinesOf("::SyncSend"),
              ElementsAre(Trace("SyncSend",
                                "[SyncSend] msg_type[0],src_id[0],dst_id[],url[/lazy],method[GET], "
                                "time_out[100]"),
                          Trace("SyncSend", "[SyncSend] Find DstIdByUrl success, dst_id[Lazy], url=[/lazy]"),
                          Error("SyncSend", "GetPluginInitState failed, dst_id[Lazy] has not inited")));
}

TEST_F(FrameSend, ASynchronousSendToAnUnlistedPluginFails) {
  EXPECT_FALSE(Sync(Request("Nobody", "/ready")));
  ExpectNothingSent();
  EXPECT_TRUE(log_.Has(Error("SyncSend", "GetPluginInitState failed, dst_id[Nobody] has not inited")));
}

TEST_F(FrameSend, ASynchronousSendIsARequestWhateverItsType) {
  for (const int type : {1, 2, 3, -1}) {
    LPCData data = Request("Ready");
    data.msg_type = type;
    data.dst_type = 4;
    EXPECT_TRUE(Sync(data)) << type;
  }
  ASSERT_THAT(transport_.WaitingSends(), SizeIs(4));
  for (const WaitingSend& sent : transport_.WaitingSends()) {
    EXPECT_EQ(sent.request.params.count("dstType"), 0u);
  }
  EXPECT_TRUE(log_.Has(
      Trace("SyncSend", "[SyncSend] msg_type[-1],src_id[0],dst_id[Ready],url[],method[GET], time_out[100]")));
}

TEST_F(FrameSend, TheAnswerIsConvertedAsAReplyOfWhoeverAnswered) {
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response.src_id = "Answerer";
    response.body = std::string("an\0swer", 7);
    response.params = {
        {"url", "/u"}, {"method", "m"}, {"schema", "s"}, {"pushMsgTag", "t"}, {"dstType", "9"}};
    return true;
  };
  response_.dst_id = "kept";
  response_.dst_type = 3;
  response_.msg_id = 5;
  EXPECT_TRUE(Sync(Request("Ready")));
  EXPECT_EQ(response_.msg_type, 1);
  EXPECT_EQ(response_.src_id, "Answerer");
  EXPECT_EQ(response_.body, std::string("an\0swer", 7));
  EXPECT_EQ(response_.url, "/u");
  EXPECT_EQ(response_.method, "m");
  EXPECT_EQ(response_.schema, "s");
  EXPECT_EQ(response_.push_msg_tag, "t");
  EXPECT_EQ(response_.dst_id, "kept");
  EXPECT_EQ(response_.dst_type, 3);
  EXPECT_EQ(response_.msg_id, 5u);
}

TEST_F(FrameSend, ASynchronousSendThatTheTransportFailsLogsNothingAndLeavesTheResponse) {
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response.body = "half an answer";
    return false;
  };
  response_.body = "before";
  const LPCData before = response_;
  EXPECT_FALSE(Sync(Request("Ready")));
  EXPECT_TRUE(response_ == before);
  EXPECT_THAT(log_.Lines(), SizeIs(1));
}

TEST_F(FrameSend, ASynchronousSendMayAnswerIntoItsOwnRequest) {
  transport_.send_and_wait = [](tag_LPCResponseData& response, const WaitingSend&) {
    response.src_id = "Ready";
    response.body = "answer";
    return true;
  };
  LPCData data = Request("Ready", "/x");
  EXPECT_TRUE(SyncSend(data, data, 100));
  EXPECT_EQ(transport_.WaitingSends()[0].request.body, "body");
  EXPECT_EQ(data.body, "answer");
}

TEST_F(FrameSend, ASynchronousSendWhoseDocumentsCannotBePrintedFailsWithoutALine) {
  LPCData data = Request("Ready");
  data.http_headers["a"] = "b";
  const NoMemoryForDocuments no_memory;
  EXPECT_FALSE(Sync(data));
  ExpectNothingSent();
  EXPECT_THAT(log_.Lines(), SizeIs(1));
}

TEST_F(FrameSend, ASynchronousSendSurvivesATransportThatThrows) {
  transport_.send_and_wait = [](tag_LPCResponseData&, const WaitingSend&) -> bool {
    throw std::runtime_error("scripted");
  };
  response_.body = "before";
  EXPECT_NO_THROW(EXPECT_FALSE(Sync(Request("Ready"))));
  EXPECT_EQ(response_.body, "before");
  EXPECT_EQ(log_.Lines().back().level, 5);
}

// AsyncSend of a request.

TEST_F(FrameSend, AnAsynchronousRequestIsSentAndItsIdGiven) {
  transport_.send = 77;
  EXPECT_TRUE(Async(Request("Ready", "/x")));
  EXPECT_EQ(id_, 77u);
  ASSERT_THAT(transport_.Requests(), SizeIs(1));
  EXPECT_EQ(transport_.Requests()[0].dst_id, "Ready");
  EXPECT_EQ(transport_.Requests()[0].body, "body");
  EXPECT_THAT(transport_.Requests()[0].params, ElementsAre(Pair("method", "GET"), Pair("url", "/x")));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("AsyncSend",
                                "AsyncSend msg_type=[0],src_id=[0],dst_id=[Ready],url=[/x],method=[GET], "
                                "msg_id=[0]")));
}

TEST_F(FrameSend, AnAsynchronousRequestFindsThePluginByUrlWithoutALine) {
  EXPECT_TRUE(Async(Request("", "/Ready?a=b")));
  EXPECT_EQ(transport_.Requests()[0].dst_id, "Ready");
  EXPECT_THAT(log_.Lines(), SizeIs(1));
}

TEST_F(FrameSend, AnAsynchronousRequestReachesAPluginThatHasNotInitialised) {
  EXPECT_TRUE(Async(Request("Lazy")));
  EXPECT_TRUE(Async(Request("", "/lazy")));
  EXPECT_TRUE(Async(Request("Nobody")));
  EXPECT_THAT(Journal::Of("lpc."), ElementsAre("lpc.Send Lazy", "lpc.Send Lazy", "lpc.Send Nobody"));
}

TEST_F(FrameSend, AnAsynchronousRequestThatTheTransportNumbersZeroCountsAsSent) {
  transport_.send = 0;
  EXPECT_TRUE(Async(Request("Ready")));
  EXPECT_EQ(id_, 0u);
}

TEST_F(FrameSend, AnAsynchronousRequestToAUrlThatNobodyServesFailsAndLeavesTheId) {
  LPCData data = Request("", "/nobody");
  data.msg_id = 9;
  EXPECT_FALSE(Async(data));
  EXPECT_EQ(id_, kUntouched);
  ExpectNothingSent();
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("AsyncSend",
                                "AsyncSend msg_type=[0],src_id=[0],dst_id=[],url=[/nobody],method=[GET], "
                                "msg_id=[9]"),
                          Error("AsyncSend", "dst_id is empty, url =[/nobody], msg_id = 9.")));
}

TEST_F(FrameSend, AnAsynchronousRequestWhoseDocumentsCannotBePrintedFailsAndLeavesTheId) {
  LPCData data = Request("Ready");
  data.msg_id = 8;
  data.http_mime.emplace_back();
  const NoMemoryForDocuments no_memory;
  EXPECT_FALSE(Async(data));
  EXPECT_EQ(id_, kUntouched);
  ExpectNothingSent();
  EXPECT_EQ(log_.Lines().back(), Error("AsyncSend", "LPCDataToRequestData failed.msg_id = 8."));
}

TEST_F(FrameSend, AnAsynchronousRequestNeverCarriesADestinationType) {
  LPCData data = Request("Ready");
  data.dst_type = 0;
  Async(data);
  EXPECT_EQ(transport_.Requests()[0].params.count("dstType"), 0u);
}

// AsyncSend of a reply.

TEST_F(FrameSend, AReplyCarriesTheIdOfItsRequest) {
  EXPECT_TRUE(Async(Reply("Lazy", 31, "/x")));
  EXPECT_EQ(id_, kAllOnes);
  ASSERT_THAT(transport_.Replies(), SizeIs(1));
  EXPECT_EQ(transport_.Replies()[0].msg_id, 31u);
  EXPECT_EQ(transport_.Replies()[0].dst_id, "Lazy");
  EXPECT_EQ(transport_.Replies()[0].body, "body");
  EXPECT_THAT(transport_.Replies()[0].params, ElementsAre(Pair("method", "GET"), Pair("url", "/x")));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("AsyncSend",
                                "AsyncSend msg_type=[1],src_id=[0],dst_id=[Lazy],url=[/x],method=[GET], "
                                "msg_id=[31]"),
                          Trace("AsyncSend", "[Reply] Start, dst_id[Lazy], msg_id[31]")));
}

TEST_F(FrameSend, AReplyLogsItsStartBeforeItIsSent) {
  Async(Reply("A", 1));
  EXPECT_TRUE(HappenedInOrder({"log [Reply] Start, dst_id[A], msg_id[1]", "lpc.Reply A"}));
}

TEST_F(FrameSend, AReplyIsNeverRoutedByUrl) {
  EXPECT_TRUE(Async(Reply("", 1, "/ready")));
  EXPECT_EQ(transport_.Replies()[0].dst_id, "");
}

TEST_F(FrameSend, AReplyGivesTheTransportsResult) {
  transport_.reply = false;
  EXPECT_FALSE(Async(Reply("A", 1)));
  EXPECT_EQ(id_, kAllOnes);
  EXPECT_THAT(log_.Lines(), SizeIs(2));
}

TEST_F(FrameSend, AReplyKeepsItsIdAlsoWhenTheCallerGivesThatVeryFieldForTheResult) {
  LPCData data = Reply("A", 31);
  EXPECT_TRUE(AsyncSend(data.msg_id, data));
  EXPECT_EQ(transport_.Replies()[0].msg_id, 31u);
  EXPECT_EQ(data.msg_id, kAllOnes);
  EXPECT_TRUE(log_.Has(Trace("AsyncSend", "[Reply] Start, dst_id[A], msg_id[31]")));
}

TEST_F(FrameSend, AReplyShowsTheLargestIdAsFarAsALongReaches) {
  EXPECT_TRUE(Async(Reply("A", kAllOnes)));
  EXPECT_TRUE(
      log_.Has(Trace("AsyncSend", "[Reply] Start, dst_id[A], msg_id[" + std::to_string(ULONG_MAX) + "]")));
}

TEST_F(FrameSend, AReplyWhoseDocumentsCannotBePrintedFailsAndLeavesTheId) {
  LPCData data = Reply("A", 31);
  data.http_headers["a"] = "b";
  const NoMemoryForDocuments no_memory;
  EXPECT_FALSE(Async(data));
  EXPECT_EQ(id_, kUntouched);
  ExpectNothingSent();
  EXPECT_EQ(log_.Lines().back(),
            Error("AsyncSend", "AsyncSend LPCDataToReplyData failed, dst_id[A], msg_id[31]"));
}

// AsyncSend of a notification.

TEST_F(FrameSend, ANotificationCarriesItsDestinationType) {
  LPCData data = Notification("Lazy", "/x");
  data.dst_type = 0;
  EXPECT_TRUE(Async(data));
  EXPECT_EQ(id_, kAllOnes);
  ASSERT_THAT(transport_.Notifications(), SizeIs(1));
  EXPECT_EQ(transport_.Notifications()[0].dst_id, "Lazy");
  EXPECT_EQ(transport_.Notifications()[0].body, "body");
  EXPECT_THAT(transport_.Notifications()[0].params,
              ElementsAre(Pair("dstType", "0"), Pair("method", "GET"), Pair("url", "/x")));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("AsyncSend",
                                "AsyncSend msg_type=[2],src_id=[0],dst_id=[Lazy],url=[/x],method=[GET], "
                                "msg_id=[0]")));
}

TEST_F(FrameSend, ANotificationFindsThePluginByUrl) {
  EXPECT_TRUE(Async(Notification("", "/lazy")));
  EXPECT_EQ(transport_.Notifications()[0].dst_id, "Lazy");
}

TEST_F(FrameSend, ANotificationGivesTheTransportsResult) {
  transport_.notify = false;
  EXPECT_FALSE(Async(Notification("A")));
  EXPECT_EQ(id_, kAllOnes);
  EXPECT_THAT(log_.Lines(), SizeIs(1));
}

TEST_F(FrameSend, ANotificationToAUrlThatNobodyServesFailsSilentlyAndLeavesTheId) {
  EXPECT_FALSE(Async(Notification("", "/nobody")));
  EXPECT_EQ(id_, kUntouched);
  ExpectNothingSent();
  EXPECT_THAT(log_.Lines(), SizeIs(1));
}

TEST_F(FrameSend, ANotificationWhoseDocumentsCannotBePrintedFailsAndLeavesTheId) {
  LPCData data = Notification("A");
  data.msg_id = 6;
  data.http_headers["a"] = "b";
  const NoMemoryForDocuments no_memory;
  EXPECT_FALSE(Async(data));
  EXPECT_EQ(id_, kUntouched);
  ExpectNothingSent();
  EXPECT_EQ(log_.Lines().back(), Error("AsyncSend", "LPCDataToNotifyData failed.msg_id = 6."));
}

// Everything else.

TEST_F(FrameSend, AnAsynchronousSendOfAnotherTypeFailsSilentlyWithAllOnes) {
  for (const int type : {3, -1, 1000}) {
    LPCData data = Request("Ready");
    data.msg_type = type;
    id_ = kUntouched;
    FromNowOn();
    EXPECT_FALSE(Async(data)) << type;
    EXPECT_EQ(id_, kAllOnes) << type;
    EXPECT_THAT(log_.Lines(), SizeIs(1)) << type;
    ExpectNothingSent();
  }
}

TEST_F(FrameSend, NoLineOfASynchronousSendShowsASessionId) {
  const std::string sid = std::string("SID=") + kSid;
  const std::string masked = std::string("SID=") + kMaskedSid;
  Sync(Request("", "/ready?" + sid));
  Sync(Request("", "/nobody?" + sid));
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(
          Trace("SyncSend", "[SyncSend] msg_type[0],src_id[0],dst_id[],url[/ready?" + masked +
                                "],method[GET], time_out[100]"),
          Trace("SyncSend", "[SyncSend] Find DstIdByUrl success, dst_id[Ready], url=[/ready?" + masked + "]"),
          Trace("SyncSend", "[SyncSend] msg_type[0],src_id[0],dst_id[],url[/nobody?" + masked +
                                "],method[GET], time_out[100]"),
          Error("SyncSend", "FindDstIdByUrl failed, url=[/nobody?" + masked + "]")));
  EXPECT_EQ(transport_.WaitingSends()[0].url, "/ready?" + sid);
  EXPECT_EQ(transport_.WaitingSends()[0].request.params.at("url"), "/ready?" + sid);
}

TEST_F(FrameSend, NoLineOfAnAsynchronousSendShowsASessionId) {
  const std::string sid = std::string("sid=") + kSid;
  const std::string masked = std::string("sid=") + kMaskedSid;
  Async(Request("", "/nobody?" + sid));
  Async(Reply("A", 1, "/x?" + sid));
  Async(Notification("A", "/x?" + sid));
  EXPECT_TRUE(log_.Has(Error("AsyncSend", "dst_id is empty, url =[/nobody?" + masked + "], msg_id = 0.")));
  for (const LogLine& line : log_.Lines()) EXPECT_EQ(line.whole.find(kSid), std::string::npos) << line;
  EXPECT_EQ(transport_.Replies()[0].params.at("url"), "/x?" + sid);
  EXPECT_EQ(transport_.Notifications()[0].params.at("url"), "/x?" + sid);
}

TEST_F(FrameSend, AnAsynchronousSendSurvivesATransportThatThrows) {
  transport_.send = [](const tag_LPCRequestData&) -> std::uint64_t { throw std::runtime_error("scripted"); };
  transport_.reply = [](const tag_LPCReplyData&) -> bool { throw std::runtime_error("scripted"); };
  transport_.notify = [](const tag_LPCNotifyData&) -> bool { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(EXPECT_FALSE(Async(Request("Ready"))));
  EXPECT_NO_THROW(EXPECT_FALSE(Async(Reply("Ready", 1))));
  EXPECT_NO_THROW(EXPECT_FALSE(Async(Notification("Ready"))));
  EXPECT_THAT(log_.Lines(), SizeIs(7));
  EXPECT_EQ(log_.Lines().back().level, 5);
}

TEST_F(FrameSend, WhatNobodyWantsLoggedIsNotMasked) {
  log_.SetLevel(5);
  const int before = g_masked_urls;
  const std::string url = std::string("/x?SID=") + kSid;
  EXPECT_TRUE(Sync(Request("Ready", url)));
  EXPECT_TRUE(Async(Request("Ready", url)));
  EXPECT_TRUE(Async(Reply("Ready", 1, url)));
  EXPECT_TRUE(Async(Notification("Ready", url)));
  EXPECT_EQ(g_masked_urls, before);
  EXPECT_THAT(log_.Lines(), IsEmpty());

  EXPECT_FALSE(Sync(Request("", "/nobody")));
  EXPECT_GT(g_masked_urls, before);
  EXPECT_THAT(log_.Lines(), ElementsAre(Error("SyncSend", "FindDstIdByUrl failed, url=[/nobody]")));
}

}  // namespace
}  // namespace tolm::test
