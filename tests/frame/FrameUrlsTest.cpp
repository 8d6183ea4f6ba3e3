#include <gtest/gtest.h>

#include <cstdint>
#include <locale>
#include <random>
#include <sstream>
#include <string>

#include "FrameScript.h"
#include "TolmBase/StringUtil.h"
#include "common/UrlTemplate.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;

// Url patterns.

std::string Pattern(const std::string& url) {
  std::string out;
  NormalizeUrlPattern(out, url);
  return out;
}

TEST(FrameUrls, NumbersBecomeAnIdInTheUrlPattern) {
  EXPECT_EQ(Pattern("/a/123/b"), "/a/<ID>/b");
  EXPECT_EQ(Pattern("/x/42/"), "/x/<ID>");
  for (const char* number : {"0", "007", "-7", "+5", "-0", "-2", " 5", "9223372036854775807",
                             "-9223372036854775808", "0000000000000000000000000000001"}) {
    EXPECT_EQ(Pattern("/x/" + std::string(number)), "/x/<ID>") << number;
  }
}

TEST(FrameUrls, WhatIsNoNumberStaysInTheUrlPattern) {
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
                           " ",
                           "  ",
                           " -",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "99999999999999999999999",
                           "<ID>",
                           "?5",
                           "5?x=1"}) {
    EXPECT_EQ(Pattern("/x/" + std::string(text)), "/x/" + std::string(text)) << text;
  }
}

TEST(FrameUrls, A32ByteSegmentBecomesAGuidInTheUrlPatternWhateverItHolds) {
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

TEST(FrameUrls, EmptySegmentsVanishFromTheUrlPattern) {
  EXPECT_EQ(Pattern(""), "");
  EXPECT_EQ(Pattern("///"), "");
  EXPECT_EQ(Pattern("//a///b//"), "/a/b");
  EXPECT_EQ(Pattern("a/b"), "/a/b");
}

TEST(FrameUrls, AUrlPatternKeepsCaseAndQueryAndIsAppended) {
  EXPECT_EQ(Pattern("/Ab/C?d=E/7"), "/Ab/C?d=E/<ID>");
  std::string out = "before";
  NormalizeUrlPattern(out, "/a");
  EXPECT_EQ(out, "before/a");
}

TEST(FrameUrls, AQueryIsCutBeforeTheFirstQuestionMark) {
  EXPECT_EQ(CutQuery("/a?b?c"), "/a");
  EXPECT_EQ(CutQuery("/a"), "/a");
  EXPECT_EQ(CutQuery("?x"), "");
  EXPECT_EQ(CutQuery(""), "");
}

// Keys.

std::string LookupKey(const std::string& url) {
  const UrlLookupKey key(url);
  return std::string(key.text());
}

TEST(FrameUrls, AUrlIsLookedUpAsItsPatternWithoutQueryAndInLowerCase) {
  EXPECT_EQ(LookupKey("/Api/FOO/42/?X=/7"), "/api/foo/<id>");
  EXPECT_EQ(LookupKey("Api//0123456789ABCDEF0123456789ABCDEF"), "/api/<guid>");
  EXPECT_EQ(LookupKey("/a/-1/\xc3\x84"), "/a/-1/\xc3\x84");
  for (const char* url : {"", "?", "///", "/?/a", "?/a"}) EXPECT_EQ(LookupKey(url), "") << url;
}

/// A pattern by the means that its definition speaks of: a tokenizer and a text stream.
std::string PatternByStream(const std::string& url) {
  std::string pattern;
  std::istringstream segments(url);
  for (std::string segment; std::getline(segments, segment, '/');) {
    if (segment.empty()) continue;
    std::istringstream number(segment);
    number.imbue(std::locale::classic());
    std::int64_t value = 0;
    const bool whole = (number >> value) && number.peek() == std::istringstream::traits_type::eof();
    pattern += '/';
    pattern += segment.size() == 32 ? "<GUID>" : whole && value != -1 ? "<ID>" : segment;
  }
  return pattern;
}

/// A text that has much in common with a number, or with a name.
std::string RandomSegment(std::mt19937& random) {
  const std::string blanks_and_signs = " \t\n\v\f\r+-?0";
  const std::string others = "aZ9?-\xc3";
  std::string segment;
  for (std::size_t i = random() % 3; i > 0; --i) {
    segment += blanks_and_signs[random() % blanks_and_signs.size()];
  }
  for (std::size_t i = random() % 22; i > 0; --i) segment += static_cast<char>('0' + random() % 10);
  if (random() % 3 == 0) segment += others[random() % others.size()];
  if (random() % 8 == 0) segment.assign(31 + random() % 3, 'F');
  return random() % 9 == 0 ? "-1" : segment;
}

TEST(FrameUrls, PatternsAndKeysAreWhatTheirDefinitionGives) {
  std::mt19937 random(4711);
  for (int round = 0; round < 20'000; ++round) {
    std::string url;
    // Now and then a url that is longer than most.
    for (std::size_t i = random() % (round % 100 == 0 ? 400 : 6); i > 0; --i) {
      if (random() % 8 != 0) url += '/';
      url += random() % 4 != 0 ? RandomSegment(random) : "7";
    }
    ASSERT_EQ(Pattern(url), PatternByStream(url)) << url;
    ASSERT_EQ(LookupKey(url), Tolm::Base::StringUtil::LowerCase(PatternByStream(CutQuery(url)))) << url;
  }
}

TEST(FrameUrls, NoPatternIsLongerThanTheRoomForIt) {
  for (std::size_t segments = 1; segments < 400; ++segments) {
    std::string url;
    std::string pattern;
    for (std::size_t i = 0; i < segments; ++i) {
      url += i == 0 ? "7" : "/7";
      pattern += "/<id>";
    }
    ASSERT_EQ(LookupKey(url), pattern);
  }
}

// Masking.

TEST(FrameUrls, SessionIdsAreMaskedWhateverTheCase) {
  const std::string sid = kSid;
  const std::string masked = kMaskedSid;
  EXPECT_EQ(MaskSidInUrl("/a?SID=" + sid), "/a?SID=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?sid=" + sid), "/a?sid=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?SiD=" + sid + "&x=1"), "/a?SiD=" + masked + "&x=1");
  EXPECT_EQ(MaskSidInUrl("SID=" + sid), "SID=" + masked);
  EXPECT_EQ(MaskSidInUrl("/a?mySID=" + sid), "/a?mySID=" + masked);
}

TEST(FrameUrls, EverySessionIdOfAUrlIsMasked) {
  const std::string sid = kSid;
  const std::string masked = kMaskedSid;
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "SID=" + sid + "/sid=" + sid),
            "SID=" + masked + "SID=" + masked + "/sid=" + masked);
  EXPECT_EQ(MaskSidInUrl("SID=SID=" + sid), "SID=SID=" + masked);
}

TEST(FrameUrls, Only32HexDigitsAreASessionId) {
  const std::string sid = kSid;
  for (const std::string& url :
       {std::string(), std::string("/a?b=c"), std::string("SID="), "SID=" + sid.substr(1),
        "SID=g" + sid.substr(1), "SID =" + sid, "SD=" + sid, "SID%3D" + sid}) {
    EXPECT_EQ(MaskSidInUrl(url), url);
  }
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "0"), std::string("SID=") + kMaskedSid + "0");
  EXPECT_EQ(MaskSidInUrl("SID=" + sid + "g"), std::string("SID=") + kMaskedSid + "g");
}

TEST(FrameUrls, ASessionIdInAVeryLongUrlIsMasked) {
  const std::string filling(4 << 20, 'S');
  EXPECT_EQ(MaskSidInUrl(filling + "SID=" + kSid + filling), filling + "SID=" + kMaskedSid + filling);
}

TEST(FrameUrls, MaskingCanBeSwitchedOff) {
  const std::string url = std::string("/a?SID=") + kSid;
  Tolm::Base::StringUtil::SetLogMasking(false);
  EXPECT_EQ(MaskSidInUrl(url), url);
  Tolm::Base::StringUtil::SetLogMasking(true);
  EXPECT_NE(MaskSidInUrl(url), url);
}

}  // namespace
}  // namespace tolm::test
