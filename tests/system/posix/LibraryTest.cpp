// What the shared library shows to its users.

#include <gmock/gmock.h>
#include <regex.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace tolm::test {
namespace {

using ::testing::IsSupersetOf;
using Names = std::set<std::string>;

std::string OutputOf(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
  std::string output;
  char buffer[4096];
  for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) {
    output.append(buffer, count);
  }
  return output;
}

std::string TextOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What the first group of `pattern` matches in the lines of `text`, with `before` in front.
Names Matches(const std::string& text, const char* pattern, const std::string& before = {}) {
  regex_t expression;
  EXPECT_EQ(::regcomp(&expression, pattern, REG_EXTENDED), 0) << pattern;
  Names names;
  std::istringstream lines(text);
  regmatch_t groups[2];
  for (std::string line; std::getline(lines, line);) {
    if (::regexec(&expression, line.c_str(), 2, groups, 0) != 0) continue;
    const auto begin = static_cast<std::size_t>(groups[1].rm_so);
    names.insert(before + line.substr(begin, static_cast<std::size_t>(groups[1].rm_eo) - begin));
  }
  ::regfree(&expression);
  return names;
}

TEST(Library, ExportsTheDocumentedOperationsAndCJsonAndNothingElse) {
  const char* const operation = "^TOLM_LPCFRAME_API [a-zA-Z:]+ ([a-zA-Z]+)\\(";
  Names documented;
  for (const char* const header : {"/TolmLPCFrame.h", "/TolmLPCFrameDiagnostics.h"}) {
    documented.merge(Matches(TextOf(std::string(TEST_HEADERS) + header), operation, "TolmLPCFrame::"));
  }
  documented.merge(Matches(TextOf(TEST_CJSON_HEADER), "^CJSON_PUBLIC\\([^)]*\\) *([a-zA-Z_]+)\\("));
  ASSERT_THAT(documented,
              IsSupersetOf({"TolmLPCFrame::SyncSend", "TolmLPCFrame::SetLogSink", "cJSON_Parse"}));

  const Names exported =
      Matches(OutputOf("nm -DC --defined-only '" TEST_LIBRARY "'"), "^[0-9a-f]+ [a-zA-Z] ([a-zA-Z0-9_:~]+)");
  EXPECT_EQ(exported, documented);
}

TEST(Library, NeedsNothingThatIsNotExpected) {
  if (TEST_SANITIZED) GTEST_SKIP() << "a sanitizer needs libraries of its own";
  const Names needed = Matches(OutputOf("objdump -p '" TEST_LIBRARY "'"), "NEEDED +([a-zA-Z0-9_.+-]+)");
  ASSERT_THAT(needed, IsSupersetOf({"libstdc++.so.6", "libc.so.6"}));
  const Names expected{"libpugixml.so.1", "libwebsockets.so.17", "libstdc++.so.6",      "libm.so.6",
                       "libgcc_s.so.1",   "libc.so.6",           "ld-linux-x86-64.so.2"};
  for (const std::string& library : needed) EXPECT_TRUE(expected.contains(library)) << library;
}

}  // namespace
}  // namespace tolm::test
