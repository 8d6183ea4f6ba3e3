#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "FrameScript.h"
#include "common/HttpDocuments.h"

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

}  // namespace
}  // namespace tolm::test
