#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "FrameScript.h"
#include "TolmBase/Encrypt.h"
#include "common/DataConvert.h"
#include "common/HttpDocuments.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using Tolm::Base::Encrypt::Base64Decode;
using Tolm::Base::Encrypt::Base64Encode;

const std::string kAnyBytes("\0\xff\xc3(\r\n\x80 end\0", 12);

LPCData FullData() {
  LPCData data;
  data.dst_id = "D";
  data.dst_type = 3;
  data.src_id = "S";
  data.url = "/u?q=1";
  data.method = "GET";
  data.msg_id = 12;
  data.push_msg_tag = "tag";
  data.http_headers = {{"zeta", "1"}, {"Alpha", "2"}, {"beta", ""}};
  data.http_mime = {{"text/plain", "form-data", "n1", "f.txt", "8bit", "first", kAnyBytes}, {}};
  data.body = kAnyBytes;
  data.schema = "https";
  return data;
}

tag_LPCCallBackData Inbound(LpcParams params) {
  tag_LPCCallBackData data;
  data.params = std::move(params);
  return data;
}

LPCData Converted(const tag_LPCCallBackData& data) {
  LPCData out;
  LPCCallBackDataToLPCData(out, data);
  return out;
}

std::vector<std::string> Keys(const LpcParams& params) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : params) keys.push_back(key);
  return keys;
}

class FrameConvert : public FrameTest {};

// Outgoing.

TEST_F(FrameConvert, EveryFieldOfANotificationTravelsUnderItsKey) {
  tag_LPCNotifyData out;
  ASSERT_TRUE(LPCDataToNotifyData(out, FullData()));
  EXPECT_EQ(out.dst_id, "D");
  EXPECT_EQ(out.body, kAnyBytes);
  EXPECT_THAT(out.params,
              ElementsAre(Pair("dstType", "3"),
                          Pair("httpHeaders", Base64Encode(PrintHeadersDocument(FullData().http_headers))),
                          Pair("httpMime", Base64Encode(PrintPartsDocument(FullData().http_mime))),
                          Pair("method", "GET"), Pair("pushMsgTag", "tag"), Pair("schema", "https"),
                          Pair("url", "/u?q=1")));
}

TEST_F(FrameConvert, ARequestCarriesTheSameButNoDestinationType) {
  tag_LPCRequestData out;
  ASSERT_TRUE(LPCDataToRequestData(out, FullData()));
  EXPECT_EQ(out.dst_id, "D");
  EXPECT_EQ(out.body, kAnyBytes);
  EXPECT_THAT(Keys(out.params),
              ElementsAre("httpHeaders", "httpMime", "method", "pushMsgTag", "schema", "url"));
}

TEST_F(FrameConvert, AReplyCarriesTheMessageIdAndNoDestinationType) {
  tag_LPCReplyData out;
  ASSERT_TRUE(LPCDataToReplyData(out, FullData()));
  EXPECT_EQ(out.msg_id, 12u);
  EXPECT_EQ(out.dst_id, "D");
  EXPECT_EQ(out.body, kAnyBytes);
  EXPECT_THAT(Keys(out.params),
              ElementsAre("httpHeaders", "httpMime", "method", "pushMsgTag", "schema", "url"));
}

TEST_F(FrameConvert, WithoutItsBodyARecordIsTheSameAndKeepsTheBodyThatItHas) {
  tag_LPCRequestData request;
  tag_LPCReplyData reply;
  tag_LPCNotifyData notify;
  ASSERT_TRUE(LPCDataToRequestData(request, FullData()));
  ASSERT_TRUE(LPCDataToReplyData(reply, FullData()));
  ASSERT_TRUE(LPCDataToNotifyData(notify, FullData()));
  tag_LPCRequestData bare_request{"", {}, "kept"};
  tag_LPCReplyData bare_reply{0, "", {}, "kept"};
  tag_LPCNotifyData bare_notify{"", {}, "kept"};
  EXPECT_TRUE(LPCDataToRequestDataWithoutBody(bare_request, FullData()));
  EXPECT_TRUE(LPCDataToReplyDataWithoutBody(bare_reply, FullData()));
  EXPECT_TRUE(LPCDataToNotifyDataWithoutBody(bare_notify, FullData()));
  EXPECT_EQ(bare_request.dst_id, request.dst_id);
  EXPECT_EQ(bare_reply.dst_id, reply.dst_id);
  EXPECT_EQ(bare_reply.msg_id, reply.msg_id);
  EXPECT_EQ(bare_notify.dst_id, notify.dst_id);
  EXPECT_EQ(bare_request.params, request.params);
  EXPECT_EQ(bare_reply.params, reply.params);
  EXPECT_EQ(bare_notify.params, notify.params);
  for (const std::string& body : {bare_request.body, bare_reply.body, bare_notify.body}) {
    EXPECT_EQ(body, "kept");
  }
}

TEST_F(FrameConvert, EmptyFieldsAreNotSent) {
  tag_LPCRequestData request;
  tag_LPCReplyData reply;
  tag_LPCNotifyData notify;
  EXPECT_TRUE(LPCDataToRequestData(request, {}));
  EXPECT_TRUE(LPCDataToReplyData(reply, {}));
  EXPECT_TRUE(LPCDataToNotifyData(notify, {}));
  EXPECT_THAT(request.params, IsEmpty());
  EXPECT_THAT(reply.params, IsEmpty());
  EXPECT_THAT(notify.params, IsEmpty());
}

TEST_F(FrameConvert, OnlyMinusOneMeansThatADestinationTypeIsUnset) {
  const auto sent = [](std::int32_t dst_type) {
    LPCData data;
    data.dst_type = dst_type;
    tag_LPCNotifyData out;
    LPCDataToNotifyData(out, data);
    return out.params;
  };
  EXPECT_THAT(sent(0), ElementsAre(Pair("dstType", "0")));
  EXPECT_THAT(sent(-2), ElementsAre(Pair("dstType", "-2")));
  EXPECT_THAT(sent(2147483647), ElementsAre(Pair("dstType", "2147483647")));
  EXPECT_THAT(sent(-1), IsEmpty());
}

TEST_F(FrameConvert, AKeyThatIsThereAlreadyKeepsItsValue) {
  tag_LPCNotifyData out;
  out.params = {
      {"url", "old"}, {"dstType", "old"}, {"httpHeaders", "old"}, {"httpMime", "old"}, {"x", "old"}};
  EXPECT_TRUE(LPCDataToNotifyData(out, FullData()));
  EXPECT_THAT(out.params,
              ElementsAre(Pair("dstType", "old"), Pair("httpHeaders", "old"), Pair("httpMime", "old"),
                          Pair("method", "GET"), Pair("pushMsgTag", "tag"), Pair("schema", "https"),
                          Pair("url", "old"), Pair("x", "old")));
}

TEST_F(FrameConvert, BytesOfAnyValueTravelInTextsAndBody) {
  LPCData data;
  data.url = data.method = data.push_msg_tag = data.schema = kAnyBytes;
  tag_LPCRequestData out;
  EXPECT_TRUE(LPCDataToRequestData(out, data));
  for (const char* key : {"url", "method", "pushMsgTag", "schema"})
    EXPECT_EQ(out.params[key], kAnyBytes) << key;
}

TEST_F(FrameConvert, APartsContentIsEncodedOnceInsideAndOnceMoreWithTheDocument) {
  LPCData data;
  data.http_mime = {{"", "", "", "", "", "", kAnyBytes}};
  tag_LPCRequestData out;
  ASSERT_TRUE(LPCDataToRequestData(out, data));
  const std::string document = Base64Decode(out.params.at("httpMime"));
  EXPECT_NE(document.find("\"bodyData\":\t\"" + Base64Encode(kAnyBytes) + "\""), std::string::npos)
      << document;
}

// Inbound.

TEST_F(FrameConvert, WhatComesInHasTheTypeThatItsFlagsSay) {
  tag_LPCCallBackData data;
  EXPECT_EQ(Converted(data).msg_type, 2);
  data.is_reply = true;
  EXPECT_EQ(Converted(data).msg_type, 1);
  data.need_reply = true;
  EXPECT_EQ(Converted(data).msg_type, 1);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  data.is_reply = false;
  EXPECT_EQ(Converted(data).msg_type, 0);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("LPCCallBackDataToLPCData", "LPCCallBackDataToLPCData, need to reply")));
}

TEST_F(FrameConvert, TheTypeIsSetWhateverItWasBefore) {
  const auto type_of = [](bool is_reply, bool need_reply) {
    tag_LPCCallBackData data;
    data.is_reply = is_reply;
    data.need_reply = need_reply;
    LPCData out;
    out.msg_type = 77;
    LPCCallBackDataToLPCData(out, data);
    return out.msg_type;
  };
  EXPECT_EQ(type_of(true, false), 1);
  EXPECT_EQ(type_of(false, true), 0);
  EXPECT_EQ(type_of(false, false), 2);
}

TEST_F(FrameConvert, EveryFieldOfAnInboundMessageIsRead) {
  tag_LPCNotifyData sent;
  ASSERT_TRUE(LPCDataToNotifyData(sent, FullData()));
  tag_LPCCallBackData inbound = Inbound(sent.params);
  inbound.msg_id = 12;
  inbound.src_id = "S";
  inbound.dst_id = "D";
  inbound.body = sent.body;
  LPCData expected = FullData();
  expected.msg_type = 2;
  EXPECT_TRUE(Converted(inbound) == expected);
}

TEST_F(FrameConvert, BothFormsOfTheInboundConversionGiveTheSame) {
  tag_LPCNotifyData sent;
  ASSERT_TRUE(LPCDataToNotifyData(sent, FullData()));
  tag_LPCCallBackData inbound = Inbound(sent.params);
  inbound.msg_id = 12;
  inbound.need_reply = true;
  inbound.src_id = "S";
  inbound.dst_id = "D";
  inbound.body = sent.body;
  const LPCData copied = Converted(inbound);
  LPCData taken;
  LPCCallBackDataToLPCData(taken, std::move(inbound));
  EXPECT_TRUE(copied == taken);
}

TEST_F(FrameConvert, ADestinationTypeIsReadLeniently) {
  const auto read = [](const std::string& text) { return Converted(Inbound({{"dstType", text}})).dst_type; };
  EXPECT_EQ(read("0"), 0);
  EXPECT_EQ(read("42"), 42);
  EXPECT_EQ(read("42nd"), 42);
  EXPECT_EQ(read("-3"), -3);
  EXPECT_EQ(read("x"), 0);
  EXPECT_EQ(read(""), 0);
  EXPECT_NO_THROW(read("99999999999999999999999"));
  EXPECT_EQ(Converted({}).dst_type, -1);
}

TEST_F(FrameConvert, TheInboundUrlKeepsItsQuery) {
  EXPECT_EQ(Converted(Inbound({{"url", "/a/b?MT=7&x=1"}})).url, "/a/b?MT=7&x=1");
}

TEST_F(FrameConvert, BytesOfAnyValueArriveInTextsAndBody) {
  tag_LPCCallBackData inbound =
      Inbound({{"url", kAnyBytes}, {"method", kAnyBytes}, {"pushMsgTag", kAnyBytes}, {"schema", kAnyBytes}});
  inbound.body = kAnyBytes;
  const LPCData data = Converted(inbound);
  EXPECT_EQ(data.url, kAnyBytes);
  EXPECT_EQ(data.method, kAnyBytes);
  EXPECT_EQ(data.push_msg_tag, kAnyBytes);
  EXPECT_EQ(data.schema, kAnyBytes);
  EXPECT_EQ(data.body, kAnyBytes);
}

TEST_F(FrameConvert, AnInboundConversionClearsNothing) {
  LPCData out = FullData();
  tag_LPCCallBackData inbound;
  inbound.src_id = "new";
  inbound.body = "new";
  LPCCallBackDataToLPCData(out, inbound);
  LPCData expected = FullData();
  expected.src_id = "new";
  expected.body = "new";
  expected.dst_id = "";
  expected.msg_id = 0;
  expected.msg_type = 2;
  EXPECT_TRUE(out == expected);
}

TEST_F(FrameConvert, AnInboundTextReplacesWhatIsThereAlsoWhenItIsEmpty) {
  LPCData out = FullData();
  LPCCallBackDataToLPCData(out, Inbound({{"url", ""}, {"method", "POST"}}));
  EXPECT_EQ(out.url, "");
  EXPECT_EQ(out.method, "POST");
}

TEST_F(FrameConvert, GarbageInsteadOfDocumentsLeavesTheRestReadable) {
  for (const std::string& garbage :
       {std::string("!!!"), std::string(), std::string("QQ"), Base64Encode("{"), Base64Encode(kAnyBytes),
        Base64Encode(""), std::string("e30=\n"), std::string(100, '=')}) {
    const LPCData data =
        Converted(Inbound({{"url", "/u"}, {"httpHeaders", garbage}, {"httpMime", garbage}, {"schema", "s"}}));
    EXPECT_EQ(data.url, "/u");
    EXPECT_EQ(data.schema, "s");
    EXPECT_THAT(data.http_headers, IsEmpty());
    EXPECT_THAT(data.http_mime, IsEmpty());
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(FrameConvert, AnAnswerFillsOnlyWhatAnAnswerCarries) {
  tag_LPCRequestData sent;
  ASSERT_TRUE(LPCDataToRequestData(sent, FullData()));
  tag_LPCResponseData response{"Answerer", sent.params, kAnyBytes};
  response.params["dstType"] = "9";
  LPCData out;
  out.dst_id = "kept";
  out.dst_type = 5;
  out.msg_id = 6;
  LPCData expected = FullData();
  expected.msg_type = 1;
  expected.src_id = "Answerer";
  expected.dst_id = "kept";
  expected.dst_type = 5;
  expected.msg_id = 6;

  LPCData copied = out;
  ResponseDataToLPCData(copied, response);
  EXPECT_TRUE(copied == expected);
  ResponseDataToLPCData(out, std::move(response));
  EXPECT_TRUE(out == expected);
}

TEST_F(FrameConvert, AnAnswerClearsNothing) {
  LPCData out = FullData();
  ResponseDataToLPCData(out, tag_LPCResponseData{"A", {}, "b"});
  LPCData expected = FullData();
  expected.msg_type = 1;
  expected.src_id = "A";
  expected.body = "b";
  EXPECT_TRUE(out == expected);
}

// Without memory for the documents.

// Which allocations of cJSON fail: those numbered from g_first_failing to g_last_failing.
int g_allocation = 0;
int g_first_failing = 0;
int g_last_failing = 0;

void* FailingMalloc(std::size_t size) {
  const int number = g_allocation++;
  if (number >= g_first_failing && number <= g_last_failing) return nullptr;
  return std::malloc(size);  // NOLINT(cppcoreguidelines-no-malloc)
}

void FailAllocations(int first, int last) {
  g_allocation = 0;
  g_first_failing = first;
  g_last_failing = last;
  cJSON_Hooks hooks{&FailingMalloc, &std::free};
  cJSON_InitHooks(&hooks);
}

/// Makes the nth allocation fail, alone or with all behind it, for every n until a request is converted
/// without any failure; how many n there were.
int ConvertWithFailures(bool all_behind, const LpcParams& whole) {
  for (int n = 0; n < 10000; ++n) {
    FailAllocations(n, all_behind ? std::numeric_limits<int>::max() : n);
    tag_LPCRequestData out;
    const bool converted = LPCDataToRequestData(out, FullData());
    const bool failed_none = g_allocation <= n;
    cJSON_InitHooks(nullptr);
    EXPECT_EQ(converted, failed_none) << n;
    EXPECT_TRUE(!converted || out.params == whole) << n;
    if (failed_none) return n;
  }
  return 0;
}

TEST_F(FrameConvert, ADocumentIsPrintedWholeOrTheConversionFailsWhereverMemoryEnds) {
  tag_LPCRequestData whole;
  ASSERT_TRUE(LPCDataToRequestData(whole, FullData()));
  EXPECT_GT(ConvertWithFailures(true, whole.params), 10);
  EXPECT_GT(ConvertWithFailures(false, whole.params), 10);
}

TEST_F(FrameConvert, AnInboundDocumentIsSurvivedWhereverMemoryEnds) {
  tag_LPCRequestData whole;
  ASSERT_TRUE(LPCDataToRequestData(whole, FullData()));
  const tag_LPCCallBackData inbound = Inbound(whole.params);
  for (int n = 0; n < 100; ++n) {
    FailAllocations(n, std::numeric_limits<int>::max());
    EXPECT_EQ(Converted(inbound).url, "/u?q=1");
    FailAllocations(n, n);
    EXPECT_EQ(Converted(inbound).url, "/u?q=1");
  }
  cJSON_InitHooks(nullptr);
}

}  // namespace
}  // namespace tolm::test
