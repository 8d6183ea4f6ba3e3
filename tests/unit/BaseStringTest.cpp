#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cwchar>
#include <string>

#include "TolmBase/StringUtil.h"

namespace {

using namespace Tolm::Base::StringUtil;

TEST(StringUtil, LowerCaseChangesAsciiLettersOnly) {
  EXPECT_EQ(LowerCase(""), "");
  EXPECT_EQ(LowerCase("/Api/V1/GetURL?Id=[@Z`z{]"), "/api/v1/geturl?id=[@z`z{]");
  EXPECT_EQ(LowerCase("\xC3\x84\xC3\x96 \xFF"), "\xC3\x84\xC3\x96 \xFF");
  EXPECT_EQ(LowerCase(std::string("A\0B", 3)), std::string("a\0b", 3));
}

TEST(StringUtil, LowerCaseDoesNotFollowTheLocale) {
  // A locale with 8-bit letters, where the machine has one; the answer is the same with every locale.
  const std::string before = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "de_DE.ISO-8859-1");
  EXPECT_EQ(LowerCase("I\xC4"), "i\xC4");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(StringUtil, StringReplaceReplacesEveryOccurrence) {
  EXPECT_EQ(StringReplace("C:/a/b/", "/", "\\"), "C:\\a\\b\\");
  EXPECT_EQ(StringReplace("aXbXXc", "X", "--"), "a--b----c");
  EXPECT_EQ(StringReplace("abcabc", "abc", ""), "");
  EXPECT_EQ(StringReplace("nothing here", "x", "y"), "nothing here");
  EXPECT_EQ(StringReplace("", "x", "y"), "");
}

TEST(StringUtil, StringReplaceDoesNotSearchItsReplacements) {
  EXPECT_EQ(StringReplace("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(StringReplace("aaaa", "aaa", "a"), "aa");
}

TEST(StringUtil, StringReplaceOfTheEmptyTextChangesNothing) {
  EXPECT_EQ(StringReplace("abc", "", "x"), "abc");
}

TEST(StringUtil, StrFmtGivesWhatPrintfGives) {
  EXPECT_EQ(str_fmt("plain"), "plain");
  EXPECT_EQ(str_fmt("%s=%d,%5.2f%%", "n", -7, 3.14159), "n=-7, 3.14%");
  EXPECT_EQ(str_fmt("%s", ""), "");
}

TEST(StringUtil, StrFmtIsAsLongAsItNeedsToBe) {
  const std::string part(100'000, 'p');
  EXPECT_EQ(str_fmt("<%s|%s>", part.c_str(), part.c_str()), "<" + part + "|" + part + ">");
}

TEST(StringUtil, StrFmtOfArgumentsThatCannotBeShownIsEmpty) {
  constexpr std::wint_t kNoLetter = 0xDFFF;
  if (std::snprintf(nullptr, 0, "%lc", kNoLetter) >= 0) GTEST_SKIP() << "this printf shows every argument";
  EXPECT_EQ(str_fmt("%lc", kNoLetter), "");
}

/// Masking is process-wide: every case leaves it switched on, as it is at first.
class Masking : public testing::Test {
 protected:
  ~Masking() override { SetLogMasking(true); }

  const std::string session_id_ = "0123456789abcdefABCDEF0123456789";
};

TEST_F(Masking, GivesOneAsteriskForEachByteAtFirst) {
  EXPECT_EQ(MaskForLog(session_id_, kMaskModeSessionId, kCodePageUtf8), std::string(32, '*'));
  EXPECT_EQ(MaskForLog("\xC3\xA4", kMaskModeSessionId, kCodePageUtf8), "**");
}

TEST_F(Masking, HidesInUnknownModesAndCodePagesToo) {
  EXPECT_EQ(MaskForLog("abc", -1, kCodePageUtf8), "***");
  EXPECT_EQ(MaskForLog("abc", kMaskModeSessionId, 0), "***");
}

TEST_F(Masking, LeavesTheEmptyTextEmpty) {
  EXPECT_EQ(MaskForLog("", kMaskModeSessionId, kCodePageUtf8), "");
}

TEST_F(Masking, LeavesTheTextWhenItIsSwitchedOff) {
  SetLogMasking(false);
  EXPECT_EQ(MaskForLog(session_id_, kMaskModeSessionId, kCodePageUtf8), session_id_);
  SetLogMasking(true);
  EXPECT_EQ(MaskForLog(session_id_, kMaskModeSessionId, kCodePageUtf8), std::string(32, '*'));
}

}  // namespace
