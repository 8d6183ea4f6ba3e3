#include "OutputFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string_view>
#include <thread>

#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::string_view_literals;

class Output : public testing::Test {
 protected:
  fs::path file() const { return directory_.path() / "clock.log"; }
  fs::path old_file(int n) const { return file().string() + "." + std::to_string(n); }

  static std::string Read(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  /// The lines of a file without their times.
  static std::vector<std::string> Lines(const fs::path& path) {
    std::istringstream stream(Read(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
      lines.push_back(line.substr(std::min<std::size_t>(24, line.size())));
    return lines;
  }

  const tolm::test::TempDirectory directory_;
  tolm::test::LogCapture capture_;
};

TEST_F(Output, EveryLineHasItsTimeAndItsOrigin) {
  OutputFile output(file(), {});
  output.Note("started");
  output.Write("one\ntwo\n");
  EXPECT_THAT(Lines(file()), ElementsAre("[guard] started", "[out] one", "[out] two"));
  const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[guard\] started\n(.|\n)*)");
  EXPECT_TRUE(std::regex_match(Read(file()), line)) << Read(file());
}

TEST_F(Output, LinesAreWhateverPiecesTheyComeIn) {
  OutputFile output(file(), {});
  for (const char c : std::string("one\r\ntwo\n\nfour")) output.Write(std::string_view(&c, 1));
  EXPECT_THAT(Lines(file()), ElementsAre("[out] one", "[out] two", "[out] "));
  output.Write("");
  EXPECT_THAT(Lines(file()), ElementsAre("[out] one", "[out] two", "[out] ", "[out] four"));
  output.Write("");
  EXPECT_EQ(Lines(file()).size(), 4u);
}

TEST_F(Output, BytesThatCouldUpsetATerminalAreSpelledOut) {
  OutputFile output(file(), {});
  output.Write("\x1b[31mred\0\x07\ttab \xc3\xa4 \xff\x7f\n"sv);
  EXPECT_THAT(Lines(file()), ElementsAre("[out] \\x1b[31mred\\x00\\x07\ttab \xc3\xa4 \xff\\x7f"));
}

TEST_F(Output, AVeryLongLineIsCutAndNothingOfItIsLost) {
  OutputFile output(file(), {});
  output.Write(std::string(20000, 'a') + "\nnext\n");
  const auto lines = Lines(file());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "[out] " + std::string(8192, 'a'));
  EXPECT_EQ(lines[1], "[...] " + std::string(8192, 'a'));
  EXPECT_EQ(lines[2], "[...] " + std::string(20000 - 2 * 8192, 'a'));
  EXPECT_EQ(lines[3], "[out] next");
}

TEST_F(Output, ALineThatIsCutExactlyAtItsEndLeavesNoEmptyOne) {
  OutputFile output(file(), {});
  output.Write(std::string(8192, 'a') + "\nnext\n");
  EXPECT_THAT(Lines(file()), ElementsAre("[out] " + std::string(8192, 'a'), "[out] next"));
}

TEST_F(Output, AFileIsFilledToItsBoundAndNotBeyond) {
  constexpr std::size_t kMaxBytes = 1024;
  // 24 bytes of time, 6 of origin, one line feed.
  const std::string line(128 - 31, 'x');
  OutputFile output(file(), {kMaxBytes, 2});
  for (int n = 0; n < 8; ++n) output.Write(line + "\n");
  EXPECT_EQ(fs::file_size(file()), kMaxBytes);
  EXPECT_FALSE(fs::exists(old_file(1)));
  output.Write("y\n");
  EXPECT_EQ(fs::file_size(old_file(1)), kMaxBytes);
  EXPECT_THAT(Lines(file()), ElementsAre("[out] y"));
}

TEST_F(Output, OnlySoManyFilesAreKeptAndTheOldestGoes) {
  OutputFile output(file(), {1024, 3});
  for (int n = 0; n < 10; ++n) output.Write(std::to_string(n) + std::string(900, 'x') + "\n");
  EXPECT_THAT(Read(file()), HasSubstr("[out] 9x"));
  EXPECT_THAT(Read(old_file(1)), HasSubstr("[out] 8x"));
  EXPECT_THAT(Read(old_file(2)), HasSubstr("[out] 7x"));
  EXPECT_FALSE(fs::exists(old_file(3)));
}

TEST_F(Output, OneFileIsStartedOver) {
  OutputFile output(file(), {1024, 1});
  for (int n = 0; n < 10; ++n) output.Write(std::to_string(n) + std::string(900, 'x') + "\n");
  EXPECT_EQ(Lines(file()).size(), 1u);
  EXPECT_FALSE(fs::exists(old_file(1)));
}

TEST_F(Output, FewerFilesThanBeforeRemoveTheSurplus) {
  OutputFile output(file(), {1024, 4});
  for (int n = 0; n < 6; ++n) output.Write(std::to_string(n) + std::string(900, 'x') + "\n");
  ASSERT_TRUE(fs::exists(old_file(3)));
  output.SetRules({1024, 2});
  output.Write(std::string(900, 'x') + "\n");
  EXPECT_TRUE(fs::exists(old_file(1)));
  EXPECT_FALSE(fs::exists(old_file(2)));
  EXPECT_FALSE(fs::exists(old_file(3)));
}

TEST_F(Output, ALineThatIsLongerThanAFileDoesNotMakeItLarger) {
  OutputFile output(file(), {1024, 3});
  output.Write(std::string(5000, 'z') + "\n");
  for (const fs::path& path : {file(), old_file(1), old_file(2)})
    EXPECT_LE(fs::file_size(path), 1024u) << path;
}

TEST_F(Output, GoesOnBehindWhatAnEarlierGuardWrote) {
  { OutputFile(file(), {1024, 2}).Write(std::string(900, 'x') + "\n"); }
  OutputFile output(file(), {1024, 2});
  output.Write("short\n");
  EXPECT_EQ(Lines(file()).size(), 2u);
  output.Write(std::string(900, 'x') + "\n");
  EXPECT_EQ(Lines(file()).size(), 1u);
  EXPECT_EQ(Lines(old_file(1)).size(), 2u);
}

TEST_F(Output, AFolderThatCannotBeMadeIsReportedOnceAndTheLastLinesAreKept) {
  std::ofstream(directory_.path() / "file") << "in the way";
  OutputFile output(directory_.path() / "file" / "clock.log", {});
  for (int n = 0; n < 100; ++n) output.Write("line\n");
  EXPECT_EQ(capture_.Lines().size(), 1u);
  EXPECT_THAT(capture_.Lines().front().text, HasSubstr("Lines are lost: cannot write"));
  EXPECT_EQ(output.LastLines().size(), 20u);
}

TEST_F(Output, AFolderThatComesLaterIsWrittenToAndTheLostLinesAreCounted) {
  const fs::path blocked = directory_.path() / "file";
  std::ofstream(blocked) << "in the way";
  OutputFile output(blocked / "clock.log", {});
  output.Write("lost\n");
  output.Write("lost\n");
  fs::remove(blocked);
  int written = 0;
  ASSERT_TRUE(tolm::test::WaitFor([&] {
    output.Write("line\n");
    ++written;
    return fs::exists(blocked / "clock.log");
  }));
  EXPECT_THAT(Lines(blocked / "clock.log"), ElementsAre("[out] line"));
  const std::string expected = "can be written again, " + std::to_string(2 + written - 1) + " lines are lost";
  EXPECT_THAT(capture_.Lines().back().text, HasSubstr(expected));
}

TEST_F(Output, TheLastTwentyLinesAreKeptWithTheOneThatIsNotFinished) {
  OutputFile output(file(), {});
  for (int n = 1; n <= 25; ++n) output.Write(std::to_string(n) + "\n");
  output.Note("not the plugin's");
  output.Write("unfinished");
  const auto lines = output.LastLines();
  ASSERT_EQ(lines.size(), 20u);
  EXPECT_EQ(lines.front(), "7");
  EXPECT_EQ(lines[18], "25");
  EXPECT_EQ(lines.back(), "unfinished");
  output.Write("\n");
  output.ForgetLastLines();
  EXPECT_TRUE(output.LastLines().empty());
}

TEST_F(Output, ALongLastLineIsKeptInPart) {
  OutputFile output(file(), {});
  output.Write(std::string(8000, 'a') + "\n");
  EXPECT_THAT(output.LastLines(), ElementsAre(std::string(512, 'a')));
}

TEST_F(Output, ManyThreadsWriteWholeLines) {
  OutputFile output(file(), {1u << 20, 2});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&output] {
      for (int n = 0; n < 200; ++n) output.Note("a line of the guard");
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto lines = Lines(file());
  ASSERT_EQ(lines.size(), 800u);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[guard] a line of the guard"), 800);
}

}  // namespace
}  // namespace guard
