#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "FrameScript.h"
#include "TolmBase/Encrypt.h"
#include "TolmBase/StringUtil.h"
#include "common/DataConvert.h"
#include "common/HttpDocuments.h"
#include "common/UrlTemplate.h"

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

// The documents.

TEST_F(FrameConvert, TheHeadersDocumentIsFormattedTextInKeyOrder) {
  EXPECT_EQ(PrintHeadersDocument({{"b", "2"}, {"a", "1"}}),
            "{\n\t\"httpHeaders\":\t[{\n\t\t\t\"key\":\t\"a\",\n\t\t\t\"value\":\t\"1\"\n\t\t}, "
            "{\n\t\t\t\"key\":\t\"b\",\n\t\t\t\"value\":\t\"2\"\n\t\t}]\n}");
}

TEST_F(FrameConvert, ThePartsDocumentIsFormattedTextUnderItsMisspeltName) {
  EXPECT_EQ(PrintPartsDocument({{"ct", "di", "na", "fn", "en", "de", std::string("\0\x01", 2)}}),
            "{\n\t\"httpMine\":\t[{\n\t\t\t\"contentType\":\t\"ct\",\n\t\t\t\"disposition\":\t\"di\",\n"
            "\t\t\t\"name\":\t\"na\",\n\t\t\t\"fileName\":\t\"fn\",\n\t\t\t\"encoding\":\t\"en\",\n"
            "\t\t\t\"description\":\t\"de\",\n\t\t\t\"bodyData\":\t\"AAE=\"\n\t\t}]\n}");
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

TEST_F(FrameConvert, DocumentsComeBackAsTheyWent) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, PrintHeadersDocument(FullData().http_headers)));
  EXPECT_EQ(headers, FullData().http_headers);
  HttpParts parts;
  EXPECT_TRUE(ReadPartsDocument(parts, PrintPartsDocument(FullData().http_mime)));
  EXPECT_EQ(parts, FullData().http_mime);
}

TEST_F(FrameConvert, NoTextIsNoDocument) {
  HttpHeaders headers = {{"a", "1"}};
  HttpParts parts(1);
  EXPECT_FALSE(ReadHeadersDocument(headers, ""));
  EXPECT_FALSE(ReadPartsDocument(parts, ""));
  EXPECT_THAT(headers, SizeIs(1));
  EXPECT_THAT(parts, SizeIs(1));
}

TEST_F(FrameConvert, ADocumentThatIsNoneIsAcceptedAndAddsNothing) {
  for (const char* text : {"{", "garbage", "[]", "7", "null", "{}", R"({"other":[]})", R"({"httpHeaders":7})",
                           R"({"httpHeaders":"text"})", R"({"httpMine":null})", R"({"httpHeaders":[]})",
                           R"({"httpMine":[]})", R"({"httpMime":[{"name":"n"}]})"}) {
    HttpHeaders headers;
    HttpParts parts;
    EXPECT_TRUE(ReadHeadersDocument(headers, text)) << text;
    EXPECT_TRUE(ReadPartsDocument(parts, text)) << text;
    EXPECT_THAT(headers, IsEmpty()) << text;
    EXPECT_THAT(parts, IsEmpty()) << text;
  }
}

TEST_F(FrameConvert, TheFirstHeaderOfANameWinsAlsoAgainstWhatIsThere) {
  HttpHeaders headers = {{"a", "before"}};
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":[{"key":"a","value":"1"},{"key":"b","value":"2"},
                                               {"key":"b","value":"3"}]})"));
  EXPECT_THAT(headers, ElementsAre(Pair("a", "before"), Pair("b", "2")));
}

TEST_F(FrameConvert, HeadersThatAreNotWellFormedDoNotHideTheOthers) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":[null,1,"x",[{"key":"n","value":"n"}],{},
      {"value":"v"},{"key":5,"value":"v"},{"key":"only"},{"key":"odd","value":5},{"key":"good","value":"1"}]})"));
  EXPECT_THAT(headers, ElementsAre(Pair("good", "1"), Pair("odd", ""), Pair("only", "")));
}

TEST_F(FrameConvert, APartWhoseContentIsNotBase64IsEmpty) {
  HttpParts parts;
  EXPECT_TRUE(ReadPartsDocument(parts, R"({"httpMine":[{"name":"n","bodyData":"!!!"},{"name":"m"}]})"));
  ASSERT_THAT(parts, SizeIs(2));
  EXPECT_EQ(parts[0], (MimePart{"", "", "n", "", "", "", ""}));
  EXPECT_EQ(parts[1], (MimePart{"", "", "m", "", "", "", ""}));
}

TEST_F(FrameConvert, PartsAreAppended) {
  HttpParts parts = {{"", "", "there", "", "", "", ""}};
  EXPECT_TRUE(ReadPartsDocument(parts, R"({"httpMine":[{"name":"new"}]})"));
  ASSERT_THAT(parts, SizeIs(2));
  EXPECT_EQ(parts[0].name, "there");
  EXPECT_EQ(parts[1].name, "new");
}

TEST_F(FrameConvert, ADeeplyNestedDocumentIsSurvived) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":)" + std::string(100000, '[')));
  EXPECT_TRUE(ReadHeadersDocument(headers, std::string(5000, '[') + std::string(5000, ']')));
  EXPECT_THAT(headers, IsEmpty());
}

int g_allocations_left = 0;

void* LimitedMalloc(std::size_t size) {
  return g_allocations_left-- > 0 ? std::malloc(size) : nullptr;  // NOLINT(cppcoreguidelines-no-malloc)
}

TEST_F(FrameConvert, ADocumentIsPrintedWholeOrTheConversionFailsWhereverMemoryEnds) {
  tag_LPCRequestData whole;
  ASSERT_TRUE(LPCDataToRequestData(whole, FullData()));
  cJSON_Hooks hooks{&LimitedMalloc, &std::free};
  cJSON_InitHooks(&hooks);
  bool success = false;
  int limit = 0;
  for (; !success && limit < 10000; ++limit) {
    g_allocations_left = limit;
    tag_LPCRequestData out;
    success = LPCDataToRequestData(out, FullData());
    EXPECT_TRUE(!success || out.params == whole.params);
  }
  cJSON_InitHooks(nullptr);
  EXPECT_TRUE(success);
  EXPECT_GT(limit, 10);
}

TEST_F(FrameConvert, AnInboundDocumentIsSurvivedWhereverMemoryEnds) {
  tag_LPCRequestData whole;
  ASSERT_TRUE(LPCDataToRequestData(whole, FullData()));
  const tag_LPCCallBackData inbound = Inbound(whole.params);
  cJSON_Hooks hooks{&LimitedMalloc, &std::free};
  cJSON_InitHooks(&hooks);
  for (int limit = 0; limit < 100; ++limit) {
    g_allocations_left = limit;
    EXPECT_EQ(Converted(inbound).url, "/u?q=1");
  }
  cJSON_InitHooks(nullptr);
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

// Url patterns.

std::string Pattern(const std::string& url) {
  std::string out;
  NormalizeUrlPattern(out, url);
  return out;
}

TEST_F(FrameConvert, NumbersBecomeAnIdInTheUrlPattern) {
  EXPECT_EQ(Pattern("/a/123/b"), "/a/<ID>/b");
  EXPECT_EQ(Pattern("/x/42/"), "/x/<ID>");
  for (const char* number : {"0", "007", "-7", "+5", "-0", "-2", " 5", "9223372036854775807",
                             "-9223372036854775808", "0000000000000000000000000000001"}) {
    EXPECT_EQ(Pattern("/x/" + std::string(number)), "/x/<ID>") << number;
  }
}

TEST_F(FrameConvert, WhatIsNoNumberStaysInTheUrlPattern) {
  for (const char* text : {"-1",
                           "-01",
                           "-0001",
                           "12a",
                           "a12",
                           "-",
                           "+",
                           "--7",
                           "+-7",
                           "1.5",
                           "1e3",
                           "0x10",
                           "1,000",
                           "5 ",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "99999999999999999999999",
                           "<ID>",
                           "?5",
                           "5?x=1"}) {
    EXPECT_EQ(Pattern("/x/" + std::string(text)), "/x/" + std::string(text)) << text;
  }
}

TEST_F(FrameConvert, A32ByteSegmentBecomesAGuidInTheUrlPatternWhateverItHolds) {
  EXPECT_EQ(Pattern("/plugin/0123456789abcdef0123456789abcdef/x"), "/plugin/<GUID>/x");
  EXPECT_EQ(Pattern("/" + std::string(32, '.')), "/<GUID>");
  EXPECT_EQ(Pattern("/" + std::string(32, '0')), "/<GUID>");
  EXPECT_EQ(Pattern("/" + std::string(31, 'a')), "/" + std::string(31, 'a'));
  EXPECT_EQ(Pattern("/" + std::string(33, 'a')), "/" + std::string(33, 'a'));
  std::string umlauts;
  for (int i = 0; i < 16; ++i) umlauts += "\xc3\xa4";
  EXPECT_EQ(Pattern("/" + umlauts), "/<GUID>");
  EXPECT_EQ(Pattern("/" + umlauts + umlauts), "/" + umlauts + umlauts);
}

TEST_F(FrameConvert, EmptySegmentsVanishFromTheUrlPattern) {
  EXPECT_EQ(Pattern(""), "");
  EXPECT_EQ(Pattern("///"), "");
  EXPECT_EQ(Pattern("//a///b//"), "/a/b");
  EXPECT_EQ(Pattern("a/b"), "/a/b");
}

TEST_F(FrameConvert, AUrlPatternKeepsCaseAndQueryAndIsAppended) {
  EXPECT_EQ(Pattern("/Ab/C?d=E/7"), "/Ab/C?d=E/<ID>");
  std::string out = "before";
  NormalizeUrlPattern(out, "/a");
  EXPECT_EQ(out, "before/a");
}

TEST_F(FrameConvert, AQueryIsCutBeforeTheFirstQuestionMark) {
  EXPECT_EQ(CutQuery("/a?b?c"), "/a");
  EXPECT_EQ(CutQuery("/a"), "/a");
  EXPECT_EQ(CutQuery("?x"), "");
  EXPECT_EQ(CutQuery(""), "");
}

// Masking.

TEST_F(FrameConvert, SessionIdsAreMaskedWhateverTheCase) {
  const std::string sid = kSid;
  const std::string masked = kMaskedSid;
  EXPECT_EQ(MaskSidInUrl("/a?SID=" + sid), "/a?SID=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?sid=" + sid), "/a?sid=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?SiD=" + sid + "&x=1"), "/a?SiD=" + masked + "&x=1");
  EXPECT_EQ(MaskSidInUrl("SID=" + sid), "SID=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?mySID=" + sid), "/a?mySID=" + masked);
}

TEST_F(FrameConvert, EverySessionIdOfAUrlIsMasked) {
  const std::string sid = kSid;
  const std::string masked = kMaskedSid;
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "SID=" + sid + "/sid=" + sid),
            "SID=" + masked + "SID=" + masked + "/sid=" + masked);
  EXPECT_EQ(MaskSidInUrl("SID=SID=" + sid), "SID=SID=" + masked);
}

TEST_F(FrameConvert, Only32HexDigitsAreASessionId) {
  const std::string sid = kSid;
  for (const std::string& url :
       {std::string(), std::string("/a?b=c"), std::string("SID="), "SID=" + sid.substr(1),
        "SID=g" + sid.substr(1), "SID =" + sid, "SD=" + sid, "SID%3D" + sid}) {
    EXPECT_EQ(MaskSidInUrl(url), url);
  }
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "0"), std::string("SID=") + kMaskedSid + "0");
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "g"), std::string("SID=") + kMaskedSid + "g");
}

TEST_F(FrameConvert, ASessionIdInAVeryLongUrlIsMasked) {
  const std::string filling(4 << 20, 'S');
  EXPECT_EQ(MaskSidInUrl(filling + "SID=" + kSid + filling), filling + "SID=" + kMaskedSid + filling);
}

TEST_F(FrameConvert, MaskingCanBeSwitchedOff) {
  const std::string url = std::string("/a?SID=") + kSid;
  Tolm::Base::StringUtil::SetLogMasking(false);
  EXPECT_EQ(MaskSidInUrl(url), url);
  Tolm::Base::StringUtil::SetLogMasking(true);
  EXPECT_NE(MaskSidInUrl(url), url);
}

}  // namespace
}  // namespace tolm::test
