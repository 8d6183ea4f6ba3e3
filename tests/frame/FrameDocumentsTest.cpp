#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "FrameScript.h"
#include "TolmBase/Encrypt.h"
#include "common/HttpDocuments.h"
#include "support/LogCapture.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

const HttpHeaders kHeaders = {{"zeta", "1"}, {"Alpha", "2"}, {"beta", ""}};
const HttpParts kParts = {
    {"text/plain", "form-data", "n1", "f.txt", "8bit", "first", std::string("\0\xff\x80\r\n", 5)}, {}};

TEST(FrameDocuments, TheHeadersDocumentIsFormattedTextInKeyOrder) {
  EXPECT_EQ(PrintHeadersDocument({{"b", "2"}, {"a", "1"}}),
            "{\n\t\"httpHeaders\":\t[{\n\t\t\t\"key\":\t\"a\",\n\t\t\t\"value\":\t\"1\"\n\t\t}, "
            "{\n\t\t\t\"key\":\t\"b\",\n\t\t\t\"value\":\t\"2\"\n\t\t}]\n}");
}

TEST(FrameDocuments, ThePartsDocumentIsFormattedTextUnderItsMisspeltName) {
  EXPECT_EQ(PrintPartsDocument({{"ct", "di", "na", "fn", "en", "de", std::string("\0\x01", 2)}}),
            "{\n\t\"httpMine\":\t[{\n\t\t\t\"contentType\":\t\"ct\",\n\t\t\t\"disposition\":\t\"di\",\n"
            "\t\t\t\"name\":\t\"na\",\n\t\t\t\"fileName\":\t\"fn\",\n\t\t\t\"encoding\":\t\"en\",\n"
            "\t\t\t\"description\":\t\"de\",\n\t\t\t\"bodyData\":\t\"AAE=\"\n\t\t}]\n}");
}

TEST(FrameDocuments, DocumentsComeBackAsTheyWent) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, PrintHeadersDocument(kHeaders)));
  EXPECT_EQ(headers, kHeaders);
  HttpParts parts;
  EXPECT_TRUE(ReadPartsDocument(parts, PrintPartsDocument(kParts)));
  EXPECT_EQ(parts, kParts);
}

TEST(FrameDocuments, NoTextIsNoDocument) {
  HttpHeaders headers = {{"a", "1"}};
  HttpParts parts(1);
  EXPECT_FALSE(ReadHeadersDocument(headers, ""));
  EXPECT_FALSE(ReadPartsDocument(parts, ""));
  EXPECT_THAT(headers, SizeIs(1));
  EXPECT_THAT(parts, SizeIs(1));
}

TEST(FrameDocuments, ADocumentThatIsNoneIsAcceptedAndAddsNothing) {
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

TEST(FrameDocuments, TheFirstHeaderOfANameWinsAlsoAgainstWhatIsThere) {
  HttpHeaders headers = {{"a", "before"}};
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":[{"key":"a","value":"1"},{"key":"b","value":"2"},
                                               {"key":"b","value":"3"}]})"));
  EXPECT_THAT(headers, ElementsAre(Pair("a", "before"), Pair("b", "2")));
}

TEST(FrameDocuments, HeadersThatAreNotWellFormedDoNotHideTheOthers) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":[null,1,"x",[{"key":"n","value":"n"}],{},
      {"value":"v"},{"key":5,"value":"v"},{"key":"only"},{"key":"odd","value":5},{"key":"good","value":"1"}]})"));
  EXPECT_THAT(headers, ElementsAre(Pair("good", "1"), Pair("odd", ""), Pair("only", "")));
}

TEST(FrameDocuments, APartWhoseContentIsNotBase64IsEmpty) {
  HttpParts parts;
  EXPECT_TRUE(ReadPartsDocument(parts, R"({"httpMine":[{"name":"n","bodyData":"!!!"},{"name":"m"}]})"));
  ASSERT_THAT(parts, SizeIs(2));
  EXPECT_EQ(parts[0], (MimePart{"", "", "n", "", "", "", ""}));
  EXPECT_EQ(parts[1], (MimePart{"", "", "m", "", "", "", ""}));
}

TEST(FrameDocuments, PartsAreAppended) {
  HttpParts parts = {{"", "", "there", "", "", "", ""}};
  EXPECT_TRUE(ReadPartsDocument(parts, R"({"httpMine":[{"name":"new"}]})"));
  ASSERT_THAT(parts, SizeIs(2));
  EXPECT_EQ(parts[0].name, "there");
  EXPECT_EQ(parts[1].name, "new");
}

TEST(FrameDocuments, ADeeplyNestedDocumentIsSurvived) {
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":)" + std::string(100000, '[')));
  EXPECT_TRUE(ReadHeadersDocument(headers, std::string(5000, '[') + std::string(5000, ']')));
  EXPECT_THAT(headers, IsEmpty());
}

// Long texts. What they are printed to and read from is compared with what cJSON alone makes of them.

std::string PrintedWhole(const HttpParts& parts) {
  cJSON* const document = cJSON_CreateObject();
  cJSON* const array = cJSON_AddArrayToObject(document, "httpMine");
  for (const MimePart& part : parts) {
    cJSON* const object = cJSON_CreateObject();
    cJSON_AddItemToArray(array, object);
    cJSON_AddStringToObject(object, "contentType", part.content_type.c_str());
    cJSON_AddStringToObject(object, "disposition", part.disposition.c_str());
    cJSON_AddStringToObject(object, "name", part.name.c_str());
    cJSON_AddStringToObject(object, "fileName", part.file_name.c_str());
    cJSON_AddStringToObject(object, "encoding", part.encoding.c_str());
    cJSON_AddStringToObject(object, "description", part.description.c_str());
    cJSON_AddStringToObject(object, "bodyData", Tolm::Base::Encrypt::Base64Encode(part.body_data).c_str());
  }
  char* const text = cJSON_Print(document);
  const std::string printed = text;
  cJSON_free(text);
  cJSON_Delete(document);
  return printed;
}

HttpHeaders HeadersReadWhole(const std::string& text) {
  HttpHeaders headers;
  cJSON* const document = cJSON_Parse(text.c_str());
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, cJSON_GetObjectItemCaseSensitive(document, "httpHeaders")) {
    const char* const key = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(element, "key"));
    const char* const value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(element, "value"));
    if (key != nullptr) headers.try_emplace(key, value != nullptr ? value : "");
  }
  cJSON_Delete(document);
  return headers;
}

/// Many bytes, of every value, or those that JSON has to escape, or letters.
std::string LongText(std::mt19937& random, std::size_t size) {
  const std::size_t kind = random() % 3;
  const std::string odd = "\"\\\x01\xff\n/";
  std::string text(size, 'x');
  for (char& c : text) {
    if (kind == 0) c = static_cast<char>(random() & 0xFF);
    if (kind == 1) c = odd[random() % odd.size()];
  }
  return text;
}

TEST(FrameDocuments, LongPartsArePrintedAsCJSONAloneWould) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    HttpParts parts(random() % 4);
    for (MimePart& part : parts) {
      part.name = LongText(random, random() % 40);
      part.description = LongText(random, random() % 3000);
      part.body_data = LongText(random, random() % 9000);
    }
    const std::string text = PrintPartsDocument(parts);
    ASSERT_EQ(text, PrintedWhole(parts));
    HttpParts back;
    ASSERT_TRUE(ReadPartsDocument(back, text));
    ASSERT_EQ(back.size(), parts.size());
    for (std::size_t i = 0; i < parts.size(); ++i) EXPECT_EQ(back[i].body_data, parts[i].body_data);
  }
}

TEST(FrameDocuments, LongTextsAreReadAsCJSONAloneWould) {
  std::mt19937 random(2);
  int accepted = 0;
  for (int round = 0; round < 2000; ++round) {
    HttpHeaders headers;
    for (std::size_t i = random() % 4; i > 0; --i) {
      headers[LongText(random, random() % 1500)] = LongText(random, random() % 1500);
    }
    std::string text = PrintHeadersDocument(headers);
    // Three of four are no longer what they were.
    const std::string odd = "\"\\{}[],:\xff u";
    for (std::size_t i = random() % 4; i > 0; --i) {
      const std::size_t at = random() % text.size();
      if (random() % 2 == 0)
        text[at] = odd[random() % odd.size()];
      else
        text.insert(at, text.substr(random() % text.size(), random() % 1500));
    }
    HttpHeaders back;
    ASSERT_TRUE(ReadHeadersDocument(back, text));
    ASSERT_EQ(back, HeadersReadWhole(text)) << text;
    if (!back.empty()) ++accepted;
  }
  EXPECT_GT(accepted, 400);
}

TEST(FrameDocuments, TextsThatLookLikeThePlaceOfALongOneAreThemselves) {
  const std::string long_text(2000, 'k');
  const auto document = [&](const std::string& other) {
    return R"({"httpHeaders":[{"key":"long","value":")" + long_text + R"("},{"key":"other","value":")" +
           other + R"("},{")" + long_text + R"(":1,"key":")" + long_text + R"("}]})";
  };
  for (const char* other : {"\xff"
                            "0",
                            "\xff",
                            "\xff"
                            "7",
                            "\xff-", "0", ""}) {
    HttpHeaders headers;
    EXPECT_TRUE(ReadHeadersDocument(headers, document(other)));
    EXPECT_THAT(headers, ElementsAre(Pair(long_text, ""), Pair("long", long_text), Pair("other", other)));
  }
  HttpHeaders headers;
  EXPECT_TRUE(ReadHeadersDocument(headers, document("\\u00ff0")));
  EXPECT_EQ(headers["other"],
            "\xc3\xbf"
            "0");
}

TEST(FrameDocuments, ALongTextWithoutAnEndIsNoDocument) {
  for (const std::string& tail : {std::string(), std::string("\\"), std::string("\\\""), std::string("\"")}) {
    HttpHeaders headers;
    EXPECT_TRUE(ReadHeadersDocument(headers, R"({"httpHeaders":[{"key":")" + std::string(2000, 'k') + tail));
    EXPECT_THAT(headers, IsEmpty());
  }
}

TEST(FrameDocuments, OneWithTooManyValuesIsEmptyAndTheLogSaysSo) {
  const auto many = [](const char* name, const char* one, int count) {
    std::string text = std::string("{\"") + name + "\":[" + one;
    for (int i = 1; i < count; ++i) text += std::string(",") + one;
    return text + "]}";
  };
  LogCapture log(5);
  HttpParts parts;
  HttpHeaders headers;
  EXPECT_TRUE(ReadPartsDocument(parts, many("httpMine", "{}", 30'000)));
  EXPECT_EQ(parts.size(), 30'000u);
  // Commas in texts are none between values.
  const std::string commas = R"({"key":"k","value":")" + std::string(200'000, ',') + R"(\"[{\\"})";
  EXPECT_TRUE(ReadHeadersDocument(headers, many("httpHeaders", commas.c_str(), 1)));
  EXPECT_THAT(headers, SizeIs(1));
  EXPECT_THAT(log.Lines(), IsEmpty());
  parts.clear();
  headers.clear();
  EXPECT_TRUE(ReadPartsDocument(parts, many("httpMine", "{}", 70'000)));
  EXPECT_TRUE(ReadHeadersDocument(headers, many("httpHeaders", "0", 70'000)));
  EXPECT_TRUE(parts.empty());
  EXPECT_TRUE(headers.empty());
  ASSERT_THAT(log.Lines(), SizeIs(2));
  EXPECT_EQ(log.Lines()[0].level, 5);
  EXPECT_NE(log.Lines()[0].text.find("is not read, for it has too many values"), std::string::npos);
}

}  // namespace
}  // namespace tolm::test
