#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/HiddenProcess.h"

namespace os {
namespace {

using Tokens = std::vector<std::string>;

struct Splitting {
  std::string command_line;
  Tokens tokens;
};

void PrintTo(const Splitting& splitting, std::ostream* out) {
  *out << splitting.command_line;
}

class OsCommandLineSplit : public testing::TestWithParam<Splitting> {};

TEST_P(OsCommandLineSplit, GivesTheTokens) {
  EXPECT_EQ(SplitCommandLine(GetParam().command_line), GetParam().tokens) << GetParam().command_line;
}

INSTANTIATE_TEST_SUITE_P(Blanks, OsCommandLineSplit,
                         testing::Values(Splitting{"", {}}, Splitting{" \t ", {}}, Splitting{"a", {"a"}},
                                         Splitting{"a b", {"a", "b"}}, Splitting{"  a \t b  ", {"a", "b"}},
                                         Splitting{"a\nb c", {"a\nb", "c"}},
                                         Splitting{"\"a b\" c", {"a b", "c"}},
                                         Splitting{"a \"b\tc\"", {"a", "b\tc"}}));

INSTANTIATE_TEST_SUITE_P(
    Quotes, OsCommandLineSplit,
    testing::Values(Splitting{"\"\"", {""}}, Splitting{"a \"\" b", {"a", "", "b"}},
                    Splitting{"a b\" c \"d", {"a", "b c d"}}, Splitting{"a \"b c", {"a", "b c"}},
                    Splitting{"a \"", {"a", ""}}, Splitting{R"(a "b""c" d)", {"a", "b\"c", "d"}},
                    Splitting{R"(a "" "b")", {"a", "", "b"}}, Splitting{R"(a """")", {"a", "\""}},
                    Splitting{R"(a """b c""")", {"a", "\"b c\""}}, Splitting{R"("a""b" c)", {"a\"b", "c"}}));

INSTANTIATE_TEST_SUITE_P(Backslashes, OsCommandLineSplit,
                         testing::Values(Splitting{R"(a b\c d\\e)", {"a", R"(b\c)", R"(d\\e)"}},
                                         Splitting{R"(a b\)", {"a", R"(b\)"}},
                                         Splitting{R"(a \"b)", {"a", "\"b"}},
                                         Splitting{R"(a \\"b c")", {"a", R"(\b c)"}},
                                         Splitting{R"(a \\\"b c)", {"a", R"(\"b)", "c"}},
                                         Splitting{R"(a \\\\"b c")", {"a", R"(\\b c)"}},
                                         Splitting{R"(a "b\" c" d)", {"a", "b\" c", "d"}},
                                         Splitting{R"(a "b\\" c)", {"a", R"(b\)", "c"}},
                                         Splitting{R"(a "b\\""c")", {"a", R"(b\"c)"}},
                                         Splitting{R"(a "C:\d e\f\\" g)", {"a", R"(C:\d e\f\)", "g"}}));

INSTANTIATE_TEST_SUITE_P(
    BackslashesOfTheFirstToken, OsCommandLineSplit,
    testing::Values(Splitting{R"("C:\a b\c.exe" d)", {R"(C:\a b\c.exe)", "d"}},
                    Splitting{R"("C:\a b\" c)", {R"(C:\a b\)", "c"}},
                    Splitting{R"("C:\\a b\\" c)", {R"(C:\\a b\\)", "c"}},
                    Splitting{R"(C:\a"b c"d e)", {R"(C:\ab cd)", "e"}}, Splitting{R"(\ a)", {R"(\)", "a"}},
                    Splitting{R"("C:\App\Agent.exe" "C:\App\Host.exe" Client -process)",
                              {R"(C:\App\Agent.exe)", R"(C:\App\Host.exe)", "Client", "-process"}}));

TEST(OsCommandLineJoin, QuotesOnlyWhatNeedsIt) {
  EXPECT_EQ(JoinCommandLine({}), "");
  EXPECT_EQ(JoinCommandLine({"a", "b", R"(c\d\)"}), R"(a b c\d\)");
  EXPECT_EQ(JoinCommandLine({R"(C:\a b\)", R"(c d\)"}), R"("C:\a b\" "c d\\")");
  EXPECT_EQ(JoinCommandLine({"a\"b", "a\"b", ""}), R"("a""b" "a\"b" "")");
}

// Every text of up to five of the characters that matter, in the first place and behind it.
TEST(OsCommandLineJoin, IsUndoneBySplitting) {
  const std::string alphabet = "a\\\" \t";
  Tokens texts = {""};
  for (std::size_t begin = 0, length = 0; length < 5; ++length) {
    const std::size_t end = texts.size();
    for (; begin < end; ++begin) {
      for (const char c : alphabet) texts.push_back(texts[begin] + c);
    }
  }
  ASSERT_EQ(texts.size(), 1u + 5 + 25 + 125 + 625 + 3125);
  for (const std::string& text : texts) {
    const Tokens arguments = {text, text, "between", text};
    ASSERT_EQ(SplitCommandLine(JoinCommandLine(arguments)), arguments) << JoinCommandLine(arguments);
  }
}

}  // namespace
}  // namespace os
