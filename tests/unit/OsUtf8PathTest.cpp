// Paths from texts in UTF-8.

#include "os/Utf8Path.h"

#include <gtest/gtest.h>

namespace os {
namespace {

TEST(OsUtf8Path, IsThePathThatTheTextNames) {
  EXPECT_EQ(Utf8Path(""), std::filesystem::path());
  EXPECT_EQ(Utf8Path("/opt/one"), std::filesystem::path("/opt/one"));
  EXPECT_EQ(Utf8Path("/opt/\xC3\xA4\xE6\xBC\xA2"), std::filesystem::path(u"/opt/\u00E4\u6F22"));
  EXPECT_EQ(Utf8Path("/opt/\xC3\xA4\xE6\xBC\xA2").string(), "/opt/\xC3\xA4\xE6\xBC\xA2");
}

}  // namespace
}  // namespace os
