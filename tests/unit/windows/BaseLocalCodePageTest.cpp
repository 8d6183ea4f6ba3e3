#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "LocalText.h"
#include "TolmBase/StringUtil.h"

namespace {

using Tolm::Base::Utf8ToLocal;
using Tolm::Base::StringUtil::Local2UTF8;

TEST(LocalCodePage, IsTheOneThatTheSystemNames) {
  // A letter, how it is written in UTF-8, and in which code pages it is the byte E4.
  const std::string a_umlaut = "\xC3\xA4", cyrillic_de = "\xD0\xB4";
  if (::GetACP() == 1252 || ::GetACP() == 1250) {
    EXPECT_EQ(Local2UTF8("C:\\\xE4pp\\"), "C:\\" + a_umlaut + "pp\\");
    EXPECT_EQ(Utf8ToLocal("C:\\" + a_umlaut + "pp\\"), "C:\\\xE4pp\\");
  } else if (::GetACP() == 1251) {
    EXPECT_EQ(Local2UTF8("C:\\\xE4pp\\"), "C:\\" + cyrillic_de + "pp\\");
    EXPECT_EQ(Utf8ToLocal("C:\\" + cyrillic_de + "pp\\"), "C:\\\xE4pp\\");
  } else if (::GetACP() == CP_UTF8) {
    EXPECT_EQ(Local2UTF8(a_umlaut + cyrillic_de + "\xFF"), a_umlaut + cyrillic_de + "\xFF");
    EXPECT_EQ(Utf8ToLocal(a_umlaut + cyrillic_de + "\xFF"), a_umlaut + cyrillic_de + "\xFF");
  } else {
    GTEST_SKIP() << "no example for code page " << ::GetACP();
  }
}

TEST(LocalCodePage, WhatItLacksIsNoNameOfAFile) {
  if (::GetACP() != 1252) GTEST_SKIP() << "for code page 1252, and this is " << ::GetACP();
  EXPECT_EQ(Utf8ToLocal("C:\\\xE6\xBC\xA2\\"), "C:\\?\\");
  // An A with macron has a letter that resembles it.
  EXPECT_EQ(Utf8ToLocal("C:\\\xC4\x80\\"), "C:\\?\\");
}

}  // namespace
