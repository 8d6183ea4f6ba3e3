#include <gtest/gtest.h>

#include "LocalText.h"
#include "TolmBase/StringUtil.h"

namespace {

using Tolm::Base::Utf8ToLocal;
using Tolm::Base::StringUtil::Local2UTF8;

TEST(LocalCodePage, IsUtf8AndSoNothingIsChanged) {
  EXPECT_EQ(Local2UTF8("/opt/\xC3\xA4pp/"), "/opt/\xC3\xA4pp/");
  EXPECT_EQ(Utf8ToLocal("/opt/\xC3\xA4pp/"), "/opt/\xC3\xA4pp/");
  EXPECT_EQ(Local2UTF8("no UTF-8: \xFF"), "no UTF-8: \xFF");
}

}  // namespace
