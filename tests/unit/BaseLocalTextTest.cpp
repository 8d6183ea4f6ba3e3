// Texts in the local code page, whatever that is on this machine.

#include <gtest/gtest.h>

#include <string>

#include "LocalText.h"
#include "TolmBase/StringUtil.h"

namespace {

using Tolm::Base::LocalToUtf8;
using Tolm::Base::Utf8ToLocal;
using Tolm::Base::StringUtil::Local2UTF8;

TEST(LocalText, AsciiIsTheSameInEveryCodePage) {
  std::string ascii;
  for (char c = 1; c < 127; ++c) ascii += c;
  for (const std::string& text : {std::string(), ascii, std::string("a\0b", 3)}) {
    EXPECT_EQ(Local2UTF8(text), text);
    EXPECT_EQ(LocalToUtf8(text), text);
    EXPECT_EQ(Utf8ToLocal(text), text);
  }
}

TEST(LocalText, WhatTheCodePageHasComesBackAsItWas) {
  for (const std::string letter :
       {"\xC3\xA4", "\xE2\x82\xAC", "\xD0\x96", "\xE6\xBC\xA2", "\xF0\x9F\x98\x80"}) {
    const std::string local = Utf8ToLocal("/opt/" + letter + "/");
    const std::string back = Local2UTF8(local);
    EXPECT_TRUE(back == "/opt/" + letter + "/" || local.starts_with("/opt/?")) << letter << ": " << local;
  }
}

}  // namespace
