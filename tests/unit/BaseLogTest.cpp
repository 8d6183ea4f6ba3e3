#include "TolmBase/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TolmBase/FileUtil.h"
#include "os/Utf8Path.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace {

using namespace Tolm::Base;
using details::OMLQFormatLog;
using tolm::test::TempDirectory;
using tolm::test::WaitFor;

struct Line {
  int level;
  std::string tag;
  std::string text;
  bool operator==(const Line&) const = default;
};

/// Sinks are process-wide: every case leaves them as they are at first.
class Log : public testing::Test {
 protected:
  ~Log() override {
    SetLogCallback(nullptr, nullptr, kLogLevelOff);
    SetLogFile("", 0, 0, kLogLevelOff);
    SetLogStderrLevel(kLogLevelError);
  }

  /// From here on lines of at least `level` are kept, and `then` is told each.
  void Capture(int level, std::function<void(const Line&)> then = {}) {
    then_ = std::move(then);
    SetLogCallback(&Log::Keep, this, level);
  }

  std::vector<Line> Lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  static void Keep(int level, const char* tag, const char* text, void* user) {
    auto& self = *static_cast<Log*>(user);
    const Line line{level, tag, text};
    {
      const std::lock_guard lock(self.mutex_);
      self.lines_.push_back(line);
    }
    if (self.then_) self.then_(line);
  }

  mutable std::mutex mutex_;
  std::vector<Line> lines_;  // guarded by mutex_
  std::function<void(const Line&)> then_;
};

/// Has a folder of its own for log files, and keeps stderr quiet.
class LogToFile : public Log {
 protected:
  LogToFile() { SetLogStderrLevel(kLogLevelOff); }
  // Some systems remove no file that is open.
  ~LogToFile() override { SetLogFile("", 0, 0, kLogLevelOff); }

  std::string Path(const std::string& name) const { return (folder_ / os::Utf8Path(name)).string(); }

  std::string Content(const std::string& name) const {
    std::ifstream file(folder_ / os::Utf8Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::vector<std::string> FilesThere() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  const TempDirectory directory_;
  const std::filesystem::path folder_ = directory_.path();
};

// ------------------------------------------------------------------------------- What is wanted

TEST_F(Log, WantsOnlyErrorsAtFirst) {
  EXPECT_TRUE(IsLogWanted(kLogLevelError));
  EXPECT_FALSE(IsLogWanted(kLogLevelWarning));
}

TEST_F(Log, WantsWhatTheMostCuriousSinkWants) {
  SetLogStderrLevel(kLogLevelOff);
  EXPECT_FALSE(IsLogWanted(kLogLevelError));
  Capture(kLogLevelWarning);
  EXPECT_TRUE(IsLogWanted(kLogLevelWarning));
  EXPECT_FALSE(IsLogWanted(kLogLevelInfo));
  SetLogStderrLevel(kLogLevelTrace);
  EXPECT_TRUE(IsLogWanted(kLogLevelTrace));
  EXPECT_FALSE(IsLogWanted(1));
  SetLogStderrLevel(kLogLevelError);
  EXPECT_TRUE(IsLogWanted(kLogLevelWarning));
  EXPECT_FALSE(IsLogWanted(kLogLevelInfo));
  SetLogCallback(nullptr, nullptr, 1);
  EXPECT_TRUE(IsLogWanted(kLogLevelError));
  EXPECT_FALSE(IsLogWanted(kLogLevelWarning)) << "the level of a callback that is not there";
}

TEST_F(LogToFile, WantsWhatTheFileWants) {
  ASSERT_TRUE(SetLogFile(Path("a.log"), 1'000'000, 1, kLogLevelInfo));
  EXPECT_TRUE(IsLogWanted(kLogLevelInfo));
  EXPECT_FALSE(IsLogWanted(kLogLevelTrace));
  EXPECT_TRUE(SetLogFile("", 0, 0, 1));
  EXPECT_FALSE(IsLogWanted(kLogLevelError));
}

// ------------------------------------------------------------------------------------ Callback

TEST_F(Log, CallbackReceivesLevelTagAndText) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(kLogLevelTrace);
  OMLQFormatLog(2, "LPCFrameTrace", "[%s] %d%%", "text", 5);
  OMLQFormatLog(5, "", "%s", "");
  EXPECT_EQ(Lines(), (std::vector<Line>{{2, "LPCFrameTrace", "[text] 5%"}, {5, "", ""}}));
}

TEST_F(Log, CallbackDoesNotReceiveLowerLevels) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(kLogLevelWarning);
  for (int level = 1; level <= 5; ++level) OMLQFormatLog(level, "tag", "%d", level);
  EXPECT_EQ(Lines(), (std::vector<Line>{{4, "tag", "4"}, {5, "tag", "5"}}));
}

TEST_F(Log, RemovedCallbackReceivesNothing) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(1);
  SetLogCallback(nullptr, nullptr, 1);
  OMLQFormatLog(5, "tag", "unheard");
  EXPECT_TRUE(Lines().empty());
}

TEST_F(Log, CallbackMayLog) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(1, [](const Line& line) {
    if (line.text == "outer") OMLQFormatLog(3, "tag", "inner");
  });
  OMLQFormatLog(3, "tag", "outer");
  EXPECT_EQ(Lines(), (std::vector<Line>{{3, "tag", "outer"}, {3, "tag", "inner"}}));
}

TEST_F(Log, CallbackMayChangeTheSinks) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(1, [](const Line&) {
    SetLogStderrLevel(kLogLevelError);
    SetLogStderrLevel(kLogLevelOff);
    SetLogCallback(nullptr, nullptr, kLogLevelOff);
  });
  OMLQFormatLog(3, "tag", "first");
  OMLQFormatLog(3, "tag", "second");
  EXPECT_EQ(Lines(), (std::vector<Line>{{3, "tag", "first"}}));
}

TEST_F(Log, CallbackThatThrowsHarmsNobody) {
  Capture(1, [](const Line&) { throw std::runtime_error("from the callback"); });
  testing::internal::CaptureStderr();
  EXPECT_NO_THROW(OMLQFormatLog(5, "tag", "survives"));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("survives"), std::string::npos);
}

// -------------------------------------------------------------------------------------- Format

TEST_F(Log, TextsOfEveryLengthAreWhole) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(1);
  const std::size_t lengths[] = {0, 1, 1021, 1022, 1023, 1024, 1025, 4096, 1U << 20};
  for (const std::size_t length : lengths) {
    std::string text(length, 'x');
    if (length > 1) text.back() = '$';
    OMLQFormatLog(3, "tag", "%s", text.c_str());
    EXPECT_EQ(Lines().back().text, text) << length;
  }
  EXPECT_EQ(Lines().size(), std::size(lengths));
}

TEST_F(Log, ArgumentsThatCannotBeShownLeaveTheBareFormat) {
  SetLogStderrLevel(kLogLevelOff);
  Capture(1);
  constexpr std::wint_t kNoLetter = 0xDFFF;
  if (std::snprintf(nullptr, 0, "%lc", kNoLetter) >= 0) GTEST_SKIP() << "this printf shows every argument";
  OMLQFormatLog(3, "tag", "wide %lc here", kNoLetter);
  EXPECT_EQ(Lines(), (std::vector<Line>{{3, "tag", "wide %lc here"}}));
}

TEST_F(Log, ErrnoStaysAsItWas) {
  Capture(1, [](const Line&) { errno = ERANGE; });
  SetLogStderrLevel(kLogLevelOff);
  errno = ENOENT;
  OMLQFormatLog(3, "tag", "%s", std::string(10'000, 'x').c_str());
  EXPECT_EQ(errno, ENOENT);
}

// -------------------------------------------------------------------------------------- stderr

TEST_F(Log, StderrGetsOneLineWithTimeThreadLevelTagAndText) {
  SetLogStderrLevel(1);
  testing::internal::CaptureStderr();
  OMLQFormatLog(3, "LPCFrameInfo", "[f]text[file(1)]");
  const std::string out = testing::internal::GetCapturedStderr();
  const std::regex shape(
      R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\] \[\d+\] \[info\] \[LPCFrameInfo\] \[f\]text\[file\(1\)\]\n)");
  EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

TEST_F(Log, StderrNamesTheLevels) {
  SetLogStderrLevel(0);
  testing::internal::CaptureStderr();
  for (int level = 0; level <= 6; ++level) OMLQFormatLog(level, "t", "%d", level);
  const std::string out = testing::internal::GetCapturedStderr();
  for (const char* end : {"[debug] [t] 0\n", "[debug] [t] 1\n", "[trace] [t] 2\n", "[info] [t] 3\n",
                          "[warning] [t] 4\n", "[error] [t] 5\n", "[error] [t] 6\n"}) {
    EXPECT_NE(out.find(end), std::string::npos) << end << "in\n" << out;
  }
}

TEST_F(Log, StderrGetsErrorsOnlyAtFirstAndNothingWhenSilenced) {
  testing::internal::CaptureStderr();
  OMLQFormatLog(4, "tag", "a warning");
  OMLQFormatLog(5, "tag", "an error");
  SetLogStderrLevel(kLogLevelOff);
  OMLQFormatLog(5, "tag", "silenced");
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out.find("a warning"), std::string::npos);
  EXPECT_NE(out.find("an error"), std::string::npos);
  EXPECT_EQ(out.find("silenced"), std::string::npos);
}

// ---------------------------------------------------------------------------------------- File

TEST_F(LogToFile, FileHoldsEveryLineAtOnce) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 1'000'000, 3, kLogLevelInfo));
  OMLQFormatLog(2, "tag", "too low");
  OMLQFormatLog(3, "tag", "first");
  const std::string first = Content("frame.log");
  const std::regex shape(R"(\[[-0-9]+ [:0-9]+\.\d{6}\] \[\d+\] \[info\] \[tag\] first\n)");
  EXPECT_TRUE(std::regex_match(first, shape)) << first;
  OMLQFormatLog(5, "tag", "second");
  EXPECT_TRUE(Content("frame.log").ends_with("[error] [tag] second\n"));
}

TEST_F(LogToFile, FileIsContinuedAndItsFolderMade) {
  std::filesystem::create_directory(folder_ / "old");
  std::ofstream(folder_ / "old/frame.log", std::ios::binary) << "from the last run\n";
  ASSERT_TRUE(SetLogFile(Path("old/frame.log"), 1'000'000, 3, 1));
  OMLQFormatLog(3, "tag", "new");
  EXPECT_TRUE(Content("old/frame.log").starts_with("from the last run\n["));
  ASSERT_TRUE(SetLogFile(Path("one/two/frame.log"), 1'000'000, 3, 1));
  EXPECT_TRUE(std::filesystem::exists(folder_ / "one/two/frame.log"));
}

TEST_F(LogToFile, FileHoldsLongTextsWhole) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 100'000'000, 1, 1));
  const std::string text(1U << 20, 'x');
  OMLQFormatLog(3, "tag", "%s", text.c_str());
  EXPECT_TRUE(Content("frame.log").ends_with("[tag] " + text + "\n"));
}

TEST_F(LogToFile, FileIsRotatedBeforeItGrowsBeyondItsLimit) {
  constexpr std::size_t kLimit = 500;
  ASSERT_TRUE(SetLogFile(Path("frame.log"), kLimit, 2, 1));
  int line = 0;
  // Ten lines of at least 50 bytes exceed the limit; so forty make more files than may be kept.
  for (; line < 40; ++line) OMLQFormatLog(3, "tag", "line %02d %s", line, "----------------");
  EXPECT_EQ(FilesThere(), (std::vector<std::string>{"frame.1.log", "frame.2.log", "frame.log"}));
  const std::string kept = Content("frame.2.log") + Content("frame.1.log") + Content("frame.log");
  for (const std::string& name : FilesThere()) {
    EXPECT_LE(Content(name).size(), kLimit) << name;
    EXPECT_GT(Content(name).size(), 0U) << name;
  }
  // What is kept is the newest lines, whole and in order.
  std::istringstream lines(kept);
  std::vector<std::string> texts;
  for (std::string text; std::getline(lines, text);) texts.push_back(text.substr(text.find("line ")));
  ASSERT_FALSE(texts.empty());
  const int first = 40 - static_cast<int>(texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "line %02d ----------------", first + static_cast<int>(i));
    EXPECT_EQ(texts[i], expected);
  }
}

TEST_F(LogToFile, NoOldFileIsKeptWhenNoneMayBe) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 200, 0, 1));
  for (int line = 0; line < 20; ++line) OMLQFormatLog(3, "tag", "line %02d", line);
  EXPECT_EQ(FilesThere(), std::vector<std::string>{"frame.log"});
  EXPECT_TRUE(Content("frame.log").ends_with("line 19\n"));
}

TEST_F(LogToFile, ALineLongerThanTheLimitHasAFileOfItsOwn) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 200, 2, 1));
  OMLQFormatLog(3, "tag", "short");
  OMLQFormatLog(3, "tag", "%s", std::string(1000, 'x').c_str());
  OMLQFormatLog(3, "tag", "behind");
  EXPECT_TRUE(Content("frame.2.log").ends_with("short\n"));
  EXPECT_TRUE(Content("frame.1.log").ends_with(std::string(1000, 'x') + "\n"));
  EXPECT_TRUE(Content("frame.log").ends_with("behind\n"));
}

TEST_F(LogToFile, AFileThatCannotBeOpenedLeavesTheEarlierOne) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 1'000'000, 1, 3));
  std::filesystem::create_directory(folder_ / "folder.log");
  EXPECT_FALSE(SetLogFile(Path("folder.log"), 1'000'000, 1, 1)) << "is a folder";
  EXPECT_FALSE(SetLogFile(Path("frame.log/below.log"), 1'000'000, 1, 1)) << "below a file";
  EXPECT_FALSE(SetLogFile(Path("other.log"), 0, 1, 1)) << "no byte may be written";
  EXPECT_FALSE(IsLogWanted(2));
  OMLQFormatLog(3, "tag", "still here");
  EXPECT_TRUE(Content("frame.log").ends_with("still here\n"));
}

TEST_F(LogToFile, ANewFileTakesTheEarlierOnesPlace) {
  ASSERT_TRUE(SetLogFile(Path("a.log"), 1'000'000, 1, 3));
  OMLQFormatLog(3, "tag", "into a");
  ASSERT_TRUE(SetLogFile(Path("b.log"), 1'000'000, 1, 3));
  OMLQFormatLog(3, "tag", "into b");
  EXPECT_EQ(Content("a.log").find("into b"), std::string::npos);
  EXPECT_TRUE(Content("b.log").ends_with("into b\n"));
  ASSERT_TRUE(SetLogFile("", 0, 0, 1));
  OMLQFormatLog(5, "tag", "into nothing");
  EXPECT_TRUE(Content("b.log").ends_with("into b\n"));
}

TEST_F(LogToFile, AFileOnAFullDiskIsReportedToTheOtherSinksOnce) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "this system has no /dev/full";
  ASSERT_TRUE(SetLogFile("/dev/full", 1'000'000, 1, 3));
  Capture(3);
  OMLQFormatLog(3, "tag", "one");
  OMLQFormatLog(3, "tag", "two");
  EXPECT_EQ(Lines(),
            (std::vector<Line>{{3, "tag", "one"},
                               {5, "TolmBase", "Lines are lost: cannot write the log file /dev/full"},
                               {3, "tag", "two"}}));
}

TEST_F(LogToFile, AFileThatCouldNotBeRotatedIsWrittenAgainWhenItCan) {
  ASSERT_TRUE(SetLogFile(Path("logs/frame.log"), 200, 1, 3));
  OMLQFormatLog(3, "tag", "%s", std::string(150, 'x').c_str());
  // A file in the place of its folder: the next file cannot be made.
  std::error_code held;
  std::filesystem::remove_all(folder_ / "logs", held);
  if (held) GTEST_SKIP() << "this system removes no folder with an open file in it";
  std::ofstream(folder_ / "logs") << "in the way";
  Capture(5);
  OMLQFormatLog(3, "tag", "%s", std::string(150, 'y').c_str());
  ASSERT_EQ(Lines().size(), 1U);
  std::filesystem::remove(Path("logs"));
  EXPECT_TRUE(WaitFor([this] {
    OMLQFormatLog(3, "tag", "again");
    return Content("logs/frame.log").find("again") != std::string::npos;
  }));
  EXPECT_EQ(Lines().size(), 1U);
}

TEST_F(LogToFile, AFileWhoseOldOnesPlaceIsTakenIsWrittenAgainWhenItCanBeRotated) {
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 200, 1, 3));
  OMLQFormatLog(3, "tag", "%s", std::string(150, 'x').c_str());
  std::filesystem::create_directories(folder_ / "frame.1.log" / "in the way");
  Capture(5);
  OMLQFormatLog(3, "tag", "%s", std::string(150, 'y').c_str());
  ASSERT_EQ(Lines().size(), 1U);
  std::filesystem::remove_all(folder_ / "frame.1.log");
  EXPECT_TRUE(WaitFor([this] {
    OMLQFormatLog(3, "tag", "again");
    return Content("frame.log").find("again") != std::string::npos;
  }));
  EXPECT_EQ(Lines().size(), 1U);
}

TEST_F(LogToFile, TheFilesNameIsUtf8OnEverySystem) {
  // Letters that no single code page has.
  const std::string name = "\xC3\xA4-\xD0\x96-\xE6\xBC\xA2";
  ASSERT_TRUE(SetLogFile(Path(name + "/" + name + ".log"), 200, 1, 3));
  for (int line = 0; line < 5; ++line) OMLQFormatLog(3, "tag", "%s", std::string(100, 'x').c_str());
  EXPECT_TRUE(std::filesystem::exists(folder_ / os::Utf8Path(name + "/" + name + ".log")));
  EXPECT_TRUE(std::filesystem::exists(folder_ / os::Utf8Path(name + "/" + name + ".1.log")));
}

// ------------------------------------------------------------------------------------- Threads

TEST_F(LogToFile, LinesOfManyThreadsStayWholeWhileTheSinksChange) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  ASSERT_TRUE(SetLogFile(Path("frame.log"), 100'000'000, 1, 1));
  Capture(1);
  std::atomic<bool> done{false};
  std::thread changer([&] {
    while (!done) {
      SetLogStderrLevel(kLogLevelOff);
      SetLogFile(Path("frame.log"), 100'000'000, 1, 1);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int line = 0; line < kLines; ++line) OMLQFormatLog(3, "tag", "<%d:%d>", thread, line);
    });
  }
  for (std::thread& thread : threads) thread.join();
  done = true;
  changer.join();

  EXPECT_EQ(Lines().size(), static_cast<std::size_t>(kThreads * kLines));
  std::istringstream content(Content("frame.log"));
  std::vector<int> next(kThreads, 0);
  const std::regex shape(R"(\[.*\] \[\d+\] \[info\] \[tag\] <(\d+):(\d+)>)");
  std::smatch match;
  for (std::string line; std::getline(content, line);) {
    ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
    EXPECT_EQ(std::stoi(match[2]), next.at(static_cast<std::size_t>(std::stoi(match[1])))++);
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

using LogDeathTest = Log;

TEST_F(LogDeathTest, LinesAreLoggedWhileTheProcessExits) {
  EXPECT_EXIT(
      {
        OMLQFormatLog(5, "tag", "early");
        // Registered behind the log's own state, and so run before it would be destroyed; the thread
        // goes on logging while static objects are destroyed.
        static std::atomic<bool> logged{false};
        std::thread([] {
          while (true) {
            OMLQFormatLog(5, "tag", "from a thread");
            logged = true;
          }
        }).detach();
        WaitFor([] { return logged.load(); });
        std::exit(0);
      },
      testing::ExitedWithCode(0), "from a thread");
}

}  // namespace
