#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "SmallStack.h"
#include "TolmProto/RapidJsonProto.h"

namespace {

using proto::CRapidJsonProto;

/// A document that holds `text`; the text must be well formed.
class Json : public CRapidJsonProto {
 public:
  explicit Json(const std::string& text) { EXPECT_TRUE(set_str(text)) << text.substr(0, 100); }
};

std::string Repeated(const std::string& part, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += part;
  return text;
}

// ------------------------------------------------------------------------------------- Parsing

TEST(JsonParse, ADocumentIsAnEmptyObjectAtFirst) {
  EXPECT_EQ(CRapidJsonProto().get_str(0), "{}");
}

TEST(JsonParse, EveryKindOfValueIsAccepted) {
  for (const char* text : {"{}", "[]", "null", "true", "false", "0", "-1", "1.5", "\"\"", "\"text\"",
                           R"({"a":[1,{"b":null}],"c":"d"})"}) {
    CRapidJsonProto json;
    EXPECT_TRUE(json.set_str(text)) << text;
    EXPECT_EQ(json.get_str(0), text);
  }
}

TEST(JsonParse, BlanksAroundValuesAreSkipped) {
  EXPECT_EQ(Json(" \t\r\n{ \"a\" :\n[ 1 , 2 ]\t} \n").get_str(0), R"({"a":[1,2]})");
}

TEST(JsonParse, AByteOrderMarkIsSkipped) {
  EXPECT_EQ(Json("\xEF\xBB\xBF{}").get_str(0), "{}");
}

TEST(JsonParse, WhatIsNoCompleteValueFailsAndLeavesAnEmptyObject) {
  for (const std::string& text : {std::string(""),
                                  std::string(" "),
                                  std::string("{"),
                                  std::string("["),
                                  std::string("{]"),
                                  std::string("[1 2]"),
                                  std::string("[1,]"),
                                  std::string(R"({"a"})"),
                                  std::string(R"({"a":})"),
                                  std::string(R"({"a":1,})"),
                                  std::string("{a:1}"),
                                  std::string("'a'"),
                                  std::string("nul"),
                                  std::string("True"),
                                  std::string("01"),
                                  std::string("+1"),
                                  std::string(".5"),
                                  std::string("1."),
                                  std::string("1e"),
                                  std::string("-"),
                                  std::string("NaN"),
                                  std::string("Infinity"),
                                  std::string("\"open"),
                                  std::string("\"\\x\""),
                                  std::string("\"\\ud800\""),
                                  std::string("\"line\nfeed\""),
                                  std::string("/**/1"),
                                  std::string("\xEF\xBB{}"),
                                  std::string("\xBB{}")}) {
    Json json(R"({"a":"earlier"})");
    EXPECT_FALSE(json.set_str(text)) << text;
    EXPECT_EQ(json.get_str(0), "{}") << text;
    EXPECT_EQ(json.get_v("/a", "default"), "default") << text;
  }
}

TEST(JsonParse, AnythingBehindTheValueFails) {
  for (const std::string& text : {std::string("{} x"), std::string("{}{}"), std::string("1 2"),
                                  std::string("{}\0", 3), std::string("{}\0x", 4), std::string("[1]]")}) {
    CRapidJsonProto json;
    EXPECT_FALSE(json.set_str(text)) << testing::PrintToString(text);
  }
}

TEST(JsonParse, HalfASurrogatePairFails) {
  for (const char* text : {R"("\ud800")", R"("\udc00")", R"("a\uDFFFb")", R"("\ude00\ud83d")",
                           R"({"\udc00":1})", R"("\ud83d\ude00\ude00")", R"("\\\udc00")"}) {
    EXPECT_FALSE(CRapidJsonProto().set_str(text)) << text;
  }
  EXPECT_EQ(Json(R"({"a":"\ud83d\ude00\\udc00"})").get_v("/a", ""), "\xF0\x9F\x98\x80\\udc00");
}

TEST(JsonParse, ANewTextReplacesTheWholeDocument) {
  Json json(R"({"a":1,"b":2})");
  EXPECT_TRUE(json.set_str(R"({"b":3})"));
  EXPECT_EQ(json.get_int_v("/a", -1), -1);
  EXPECT_EQ(json.get_int_v("/b", -1), 3);
}

TEST(JsonParse, NumbersMadeToOverflowAnExponentAreHarmless) {
  EXPECT_EQ(Json("1e-400").get_str(0), "0.0");
  EXPECT_EQ(Json("0.0000000001e-2147483639").get_str(0), "0.0");
  EXPECT_EQ(Json("1e-99999999999999999999").get_str(0), "0.0");
  const std::string tiny = std::string("0.").append(400, '0');
  EXPECT_EQ(Json(tiny + "1").get_str(0), "0.0");
  EXPECT_EQ(Json(tiny + "1e50").get_str(0), "0.0");
  EXPECT_EQ(Json(tiny + "1e399").get_str(0), "0.01");
  EXPECT_EQ(Json(Repeated("9", 300) + "e-300").get_str(0), "1.0");
  EXPECT_EQ(Json("-1e-400").get_int_v("/a", 7), 7);
  for (const std::string& text : {std::string("1e400"), std::string("-1e309"), std::string("9e308"),
                                  std::string("1e+99999999999999999999"), Repeated("9", 400),
                                  std::string("[").append(310, '9') + ".5]"}) {
    CRapidJsonProto json;
    EXPECT_FALSE(json.set_str(text)) << text;
  }
}

TEST(JsonParse, NumbersComeOutAsTheyWentIn) {
  for (const char* text : {"0", "-1", "2147483647", "-2147483648", "9223372036854775807",
                           "-9223372036854775808", "18446744073709551615", "0.1", "-2.5", "3.141592653589793",
                           "1.7976931348623157e308", "5e-324", "123456789.12345679"}) {
    EXPECT_EQ(Json(text).get_str(0), text);
  }
}

// ------------------------------------------------------------------------------------- Nesting

constexpr int kDeep = 100'000;

TEST(JsonNesting, ArraysOfAnyDepthAreReadAndWritten) {
  const std::string text = Repeated("[", kDeep) + Repeated("]", kDeep);
  EXPECT_EQ(Json(text).get_str(0), text);
}

TEST(JsonNesting, ObjectsOfAnyDepthAreReadAndWrittenAndReached) {
  const std::string text = Repeated("{\"a\":", kDeep) + "7" + Repeated("}", kDeep);
  Json json(text);
  EXPECT_EQ(json.get_str(0), text);
  EXPECT_EQ(json.get_int_v(Repeated("/a", kDeep), -1), 7);
  EXPECT_TRUE(json.set_v(Repeated("/a", kDeep), 8));
  EXPECT_EQ(json.get_int_v(Repeated("/a", kDeep), -1), 8);
}

TEST(JsonNesting, DeepDocumentsAreSafeOnASmallStack) {
  // The threads of other people's processes may have small stacks.
  const std::string in = Repeated("[{\"a\":", kDeep) + "[]" + Repeated("}]", kDeep);
  std::string out;
  tolm::test::RunOnSmallStack(128 * 1024, [&] {
    CRapidJsonProto json;
    if (json.set_str(in)) out = json.get_str(0);
  });
  EXPECT_EQ(out, in);
}

TEST(JsonNesting, AnUnfinishedDeepDocumentFails) {
  CRapidJsonProto json;
  EXPECT_FALSE(json.set_str(Repeated("[", kDeep)));
  EXPECT_FALSE(json.set_str(Repeated("{\"a\":", kDeep)));
  EXPECT_FALSE(json.set_str(Repeated("[", kDeep) + Repeated("}", kDeep)));
  EXPECT_EQ(json.get_str(0), "{}");
}

TEST(JsonNesting, ADeepDocumentIsNotIndented) {
  const std::string shallow = Repeated("[", 64) + Repeated("]", 64);
  EXPECT_NE(Json(shallow).get_str(1), shallow);
  const std::string deep = Repeated("[", 65) + Repeated("]", 65);
  EXPECT_EQ(Json(deep).get_str(1), deep);
  const std::string deepest = Repeated("[", kDeep) + Repeated("]", kDeep);
  EXPECT_EQ(Json(deepest).get_str(1), deepest);
}

// ------------------------------------------------------------------------------------- Reading

class JsonRead : public testing::Test {
 protected:
  const Json json_{R"({
    "guid": "g-1", "empty": "", "nul": "a\u0000b", "code": 5, "real": 5000.0, "yes": true, "null": null,
    "big": 2147483648, "small": -2147483649, "min": -2147483648, "max": 2147483647, "exp": 5e3,
    "text_number": "5",
    "twice": 1, "twice": 2,
    "requestData": {"method": "StartProcess", "deep": {"er": [[1], {"x": "y"}]}},
    "list": ["one", 2, {"name": "three", "sub": [{"id": 31}, {"id": 32}]}],
    "void": [],
    "": {"x": 1}, "a[b": 1, "c]": 2
  })"};
};

TEST_F(JsonRead, MembersAreReachedByTheirNames) {
  EXPECT_EQ(json_.get_v("/guid", "d"), "g-1");
  EXPECT_EQ(json_.get_v("/requestData/method", "d"), "StartProcess");
  EXPECT_EQ(json_.get_int_v("/code", -1), 5);
}

TEST_F(JsonRead, ElementsAreCountedFromOne) {
  EXPECT_EQ(json_.get_v("/list[1]", "d"), "one");
  EXPECT_EQ(json_.get_int_v("/list[2]", -1), 2);
  EXPECT_EQ(json_.get_v("/list[3]/name", "d"), "three");
  EXPECT_EQ(json_.get_int_v("/list[3]/sub[2]/id", -1), 32);
  EXPECT_EQ(json_.get_v("/list[0]", "d"), "d");
  EXPECT_EQ(json_.get_v("/list[4]", "d"), "d");
  EXPECT_EQ(json_.get_v("/void[1]", "d"), "d");
}

TEST_F(JsonRead, TextsAreWholeEvenWhenEmptyOrWithNulBytes) {
  EXPECT_EQ(json_.get_v("/empty", "d"), "");
  EXPECT_EQ(json_.get_v("/nul", "d"), std::string("a\0b", 3));
}

TEST_F(JsonRead, AnotherTypeGivesTheDefault) {
  for (const char* path : {"/code", "/real", "/yes", "/null", "/requestData", "/list", "/list[2]"}) {
    EXPECT_EQ(json_.get_v(path, "d"), "d") << path;
  }
  for (const char* path : {"/guid", "/text_number", "/yes", "/null", "/requestData", "/list", "/list[1]"}) {
    EXPECT_EQ(json_.get_int_v(path, -7), -7) << path;
  }
  for (const char* path : {"/guid", "/code", "/null", "/requestData", "/list[1]", "/list[3]"}) {
    EXPECT_EQ(json_.get_cnt(path), 0) << path;
  }
}

TEST_F(JsonRead, OnlyIntegersOf32BitsAreIntegers) {
  EXPECT_EQ(json_.get_int_v("/max", -7), INT_MAX);
  EXPECT_EQ(json_.get_int_v("/min", -7), INT_MIN);
  for (const char* path : {"/big", "/small", "/real", "/exp"})
    EXPECT_EQ(json_.get_int_v(path, -7), -7) << path;
}

TEST_F(JsonRead, ArraysAreCounted) {
  EXPECT_EQ(json_.get_cnt("/list"), 3);
  EXPECT_EQ(json_.get_cnt("/list[3]/sub"), 2);
  EXPECT_EQ(json_.get_cnt("/void"), 0);
  EXPECT_EQ(json_.get_cnt("/missing"), 0);
}

TEST_F(JsonRead, TheFirstOfMembersWithTheSameNameCounts) {
  EXPECT_EQ(json_.get_int_v("/twice", -1), 1);
}

TEST(JsonReadLarge, MembersOfLargeObjectsAreReachedByTheirNames) {
  // The first of one name counts, wherever the others are; some are large objects themselves.
  std::string text = R"({"twice":1,"":"nameless",)";
  for (int i = 0; i < 1000; ++i) {
    std::string inner = "{";
    for (int k = 0; k < 100; ++k)
      inner += (k > 0 ? ",\"" : "\"") + std::to_string(k) + "\":" + std::to_string(i + k);
    text += "\"list" + std::to_string(i) + "\":[0," + inner + "}],";
  }
  text += R"("twice":2,"last":[3,{"x":4}]})";
  CRapidJsonProto json;
  ASSERT_TRUE(json.set_str(text));
  EXPECT_EQ(json.get_int_v("/twice", -1), 1);
  EXPECT_EQ(json.get_int_v("/last[2]/x", -1), 4);
  for (const int i : {0, 1, 63, 64, 500, 999}) {
    const std::string list = "/list" + std::to_string(i);
    EXPECT_EQ(json.get_cnt(list), 2);
    for (const int k : {0, 1, 64, 99}) {
      EXPECT_EQ(json.get_int_v(list + "[2]/" + std::to_string(k), -1), i + k) << list;
    }
    EXPECT_EQ(json.get_int_v(list + "[2]/100", -1), -1);
  }
  EXPECT_EQ(json.get_cnt("/list1000"), 0);
  EXPECT_EQ(json.get_cnt("/lis"), 0);
  // What is set counts from then on, and what was read before stays.
  ASSERT_TRUE(json.set_v("/aaa", 5));
  ASSERT_TRUE(json.set_v("/list7[2]/3", 6));
  EXPECT_EQ(json.get_int_v("/aaa", -1), 5);
  EXPECT_EQ(json.get_int_v("/list7[2]/3", -1), 6);
  EXPECT_EQ(json.get_int_v("/twice", -1), 1);
  ASSERT_TRUE(json.set_str("{}"));
  EXPECT_EQ(json.get_int_v("/twice", -1), -1);
}

TEST_F(JsonRead, PathsThatLeadNowhereGiveTheDefault) {
  for (const char* path :
       {"/missing", "/missing/below", "/guid/below", "/list/name", "/requestData[1]", "/code[1]",
        "/list[3]/sub[3]/id", "/GUID", "/guid ", "/requestData/deep/er[1][1]"}) {
    EXPECT_EQ(json_.get_v(path, "d"), "d") << path;
    EXPECT_EQ(json_.get_int_v(path, -7), -7) << path;
    EXPECT_EQ(json_.get_cnt(path), 0) << path;
  }
}

const char* const kMalformedPaths[] = {"",
                                       "/",
                                       "guid",
                                       "list[1]",
                                       "//guid",
                                       "/guid/",
                                       "/requestData//method",
                                       "/[1]",
                                       "/list[]",
                                       "/list[0]",
                                       "/list[-1]",
                                       "/list[+1]",
                                       "/list[ 1]",
                                       "/list[1 ]",
                                       "/list[1",
                                       "/list1]",
                                       "/list[1]x",
                                       "/list[1][1]",
                                       "/list[[1]]",
                                       "/list[x]",
                                       "/list[1.0]",
                                       "/list[0x1]",
                                       "/list[4294967297]",
                                       "/list[99999999999999999999]",
                                       "/a[b",
                                       "/c]",
                                       "/]",
                                       "/["};

TEST_F(JsonRead, MalformedPathsGiveTheDefault) {
  for (const char* path : kMalformedPaths) {
    EXPECT_EQ(json_.get_v(path, "d"), "d") << path;
    EXPECT_EQ(json_.get_int_v(path, -7), -7) << path;
    EXPECT_EQ(json_.get_cnt(path), 0) << path;
  }
}

TEST(JsonReadRoot, ADocumentThatIsNoObjectGivesDefaults) {
  for (const char* text : {"[1,2]", "\"text\"", "5", "null", "true"}) {
    const Json json(text);
    EXPECT_EQ(json.get_v("/a", "d"), "d") << text;
    EXPECT_EQ(json.get_int_v("/a[1]", -7), -7) << text;
    EXPECT_EQ(json.get_cnt("/a"), 0) << text;
  }
}

TEST(JsonReadRoot, OneDocumentMayBeReadByManyThreads) {
  const Json json(R"({"list":[{"name":"a"},{"name":"b"}]})");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&json] {
      for (int round = 0; round < 500; ++round) {
        EXPECT_EQ(json.get_v("/list[2]/name", ""), "b");
        EXPECT_EQ(json.get_cnt("/list"), 2);
        EXPECT_EQ(json.get_str(0), R"({"list":[{"name":"a"},{"name":"b"}]})");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ------------------------------------------------------------------------------------- Writing

TEST(JsonWrite, MembersComeInTheOrderInWhichTheyWereSet) {
  CRapidJsonProto json;
  EXPECT_TRUE(json.set_v("/guid", "g-1"));
  EXPECT_TRUE(json.set_v("/requestData/method", std::string("SetProcessGuardStateList")));
  EXPECT_TRUE(json.set_v("/requestData/guardInfoList[1]/processName", "a"));
  EXPECT_TRUE(json.set_v("/requestData/guardInfoList[1]/type", 1));
  EXPECT_TRUE(json.set_v("/requestData/guardInfoList[2]/processName", "b"));
  EXPECT_TRUE(json.set_v("/requestData/guardInfoList[2]/type", 0));
  EXPECT_TRUE(json.set_v("/requestData/total", 2));
  EXPECT_EQ(json.get_str(0),
            R"({"guid":"g-1","requestData":{"method":"SetProcessGuardStateList","guardInfoList":)"
            R"([{"processName":"a","type":1},{"processName":"b","type":0}],"total":2}})");
}

TEST(JsonWrite, WhatWasSetIsRead) {
  CRapidJsonProto json;
  for (const int value : {0, -1, INT_MAX, INT_MIN}) {
    EXPECT_TRUE(json.set_v("/n", value));
    EXPECT_EQ(json.get_int_v("/n", 7), value);
  }
  for (const std::string& value : {std::string(), std::string("\"\\\n\t/"), std::string("a\0b", 3),
                                   std::string("\xC3\xA4\xE2\x82\xAC"), std::string(100'000, 'x')}) {
    EXPECT_TRUE(json.set_v("/t", value));
    EXPECT_EQ(json.get_v("/t", "d"), value);
    CRapidJsonProto copy;
    EXPECT_TRUE(copy.set_str(json.get_str(0)));
    EXPECT_EQ(copy.get_v("/t", "d"), value);
  }
}

TEST(JsonWrite, ANullTextIsTheEmptyText) {
  CRapidJsonProto json;
  EXPECT_TRUE(json.set_v("/t", static_cast<const char*>(nullptr)));
  EXPECT_EQ(json.get_v("/t", "d"), "");
}

TEST(JsonWrite, TextsAreCopied) {
  CRapidJsonProto json;
  {
    std::string path = "/temporary";
    std::string value = "also temporary";
    EXPECT_TRUE(json.set_v(path, value));
    path.assign(path.size(), 'x');
    value.assign(value.size(), 'x');
  }
  EXPECT_EQ(json.get_str(0), R"({"temporary":"also temporary"})");
}

TEST(JsonWrite, ArraysGrowWithNulls) {
  CRapidJsonProto json;
  EXPECT_TRUE(json.set_v("/list[3]", "c"));
  EXPECT_EQ(json.get_str(0), R"({"list":[null,null,"c"]})");
  EXPECT_TRUE(json.set_v("/list[1]", 1));
  EXPECT_TRUE(json.set_v("/list[4]/x[2]", 2));
  EXPECT_EQ(json.get_str(0), R"({"list":[1,null,"c",{"x":[null,2]}]})");
}

TEST(JsonWrite, AValueOfAnotherTypeIsReplaced) {
  Json json(R"({"a":"text","b":[1],"c":{"d":1}})");
  EXPECT_TRUE(json.set_v("/a/below", 1));
  EXPECT_TRUE(json.set_v("/b/below", 2));
  EXPECT_TRUE(json.set_v("/c[2]", 3));
  EXPECT_EQ(json.get_str(0), R"({"a":{"below":1},"b":{"below":2},"c":[null,3]})");
  EXPECT_TRUE(json.set_v("/a", "again"));
  EXPECT_TRUE(json.set_v("/c", 4));
  EXPECT_EQ(json.get_str(0), R"({"a":"again","b":{"below":2},"c":4})");
}

TEST(JsonWrite, ADocumentThatIsNoObjectBecomesOne) {
  for (const char* text : {"[1,2]", "\"text\"", "5", "null"}) {
    Json json(text);
    EXPECT_TRUE(json.set_v("/a", 1));
    EXPECT_EQ(json.get_str(0), R"({"a":1})");
  }
}

TEST(JsonWrite, MalformedPathsChangeNothing) {
  const std::string before = R"({"list":[1],"guid":"g"})";
  Json json(before);
  for (const char* path : kMalformedPaths) {
    EXPECT_FALSE(json.set_v(path, 1)) << path;
    EXPECT_FALSE(json.set_v(path, "x")) << path;
    EXPECT_FALSE(json.set_v(path, std::string("x"))) << path;
    // Also when it is only the end of the path that is malformed.
    EXPECT_FALSE(json.set_v(std::string("/new/member") + path + "/", 1)) << path;
  }
  EXPECT_EQ(json.get_str(0), before);
}

TEST(JsonWrite, AnIndexMayBeAMillionAndNoMore) {
  CRapidJsonProto json;
  EXPECT_FALSE(json.set_v("/list[1000001]", 1));
  EXPECT_FALSE(json.set_v("/new/list[1000001]/x", "x"));
  EXPECT_EQ(json.get_str(0), "{}");
  EXPECT_TRUE(json.set_v("/list[1000000]", 1));
  EXPECT_EQ(json.get_cnt("/list"), 1'000'000);
  EXPECT_EQ(json.get_int_v("/list[1000000]", -1), 1);
}

TEST(JsonWrite, ManyElementsMayBeSetOneByOne) {
  CRapidJsonProto json;
  for (int i = 1; i <= 20'000; ++i) ASSERT_TRUE(json.set_v("/list[" + std::to_string(i) + "]", i));
  EXPECT_EQ(json.get_cnt("/list"), 20'000);
  EXPECT_EQ(json.get_int_v("/list[19999]", -1), 19'999);
}

// ---------------------------------------------------------------------------------------- Text

TEST(JsonText, StyleZeroIsCompactAndOthersAreIndented) {
  const Json json(R"({"a":[1,{"b":"c"}],"d":{},"e":[]})");
  EXPECT_EQ(json.get_str(0), R"({"a":[1,{"b":"c"}],"d":{},"e":[]})");
  const std::string indented = R"({
    "a": [
        1,
        {
            "b": "c"
        }
    ],
    "d": {},
    "e": []
})";
  EXPECT_EQ(json.get_str(1), indented);
  EXPECT_EQ(json.get_str(-1), indented);
}

TEST(JsonText, IsEscapedWhereItMustBe) {
  CRapidJsonProto json;
  EXPECT_TRUE(json.set_v("/t", std::string("\"\\/\b\f\n\r\t\x01\0\x7F\xC3\xA4", 13)));
  EXPECT_EQ(json.get_str(0), "{\"t\":\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u0000\x7F\xC3\xA4\"}");
}

TEST(JsonText, BytesThatAreNoUtf8ComeOutAsTheyWentIn) {
  const std::string text = "{\"t\":\"\xFF\xC3(\x80\"}";
  Json json(text);
  EXPECT_EQ(json.get_v("/t", ""), "\xFF\xC3(\x80");
  EXPECT_EQ(json.get_str(0), text);
}

}  // namespace
