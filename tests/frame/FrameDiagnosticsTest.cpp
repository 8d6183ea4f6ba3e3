#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "support/TempDirectory.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A host's own sink: each line as "level tag text".
class Sink {
 public:
  static void Receive(int level, const char* tag, const char* text, void* user) {
    Sink& sink = *static_cast<Sink*>(user);
    const std::lock_guard lock(sink.mutex_);
    sink.lines_.push_back(std::to_string(level) + " " + tag + " " + text);
  }

  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
};

class FrameDiagnostics : public ::testing::Test {
 protected:
  void TearDown() override {
    SetLogSink(nullptr, nullptr);
    SetLogFile("", 0, 0);
    SetLogLevel(kLogInformation);
    SetLogStderrLevel(kLogError);
  }

  // One line each.
  static void SaySomethingOfTrace() {
    LPCData notification;
    notification.msg_type = kMsgTypeNotify;
    std::uint64_t id = 0;
    AsyncSend(id, notification);
  }
  static void SaySomethingOfInformation() { RegisterUrl({"/information"}); }
  static void SaySomethingOfError() {
    LPCData request;
    request.url = "/error";
    std::uint64_t id = 0;
    AsyncSend(id, request);
  }

  Sink sink_;
};

TEST_F(FrameDiagnostics, ASinkReceivesInformationAndErrorsAtFirst) {
  SetLogSink(&Sink::Receive, &sink_);
  SetLogStderrLevel(kLogNothing);
  SaySomethingOfTrace();
  EXPECT_THAT(sink_.Take(), IsEmpty());
  SaySomethingOfInformation();
  EXPECT_THAT(
      sink_.Take(),
      ElementsAre(HasSubstr("3 LPCFrameInfo [TolmLPCFrame::RegisterUrl]Up RegisterUrl url[/information][")));
  SaySomethingOfError();
  EXPECT_THAT(sink_.Take(),
              ElementsAre(HasSubstr("5 LPCFrameError [TolmLPCFrame::AsyncSend]dst_id is empty")));
}

TEST_F(FrameDiagnostics, TheLevelDecidesWhatASinkReceives) {
  SetLogStderrLevel(kLogNothing);
  SetLogSink(&Sink::Receive, &sink_);
  SetLogLevel(kLogTrace);
  SaySomethingOfTrace();
  EXPECT_THAT(sink_.Take(), ElementsAre(HasSubstr("2 LPCFrameTrace ")));
  SetLogLevel(kLogError);
  SaySomethingOfInformation();
  EXPECT_THAT(sink_.Take(), IsEmpty());
  SetLogLevel(kLogNothing);
  SaySomethingOfError();
  EXPECT_THAT(sink_.Take(), IsEmpty());
}

TEST_F(FrameDiagnostics, ALevelThatWasSetBeforeTheSinkCounts) {
  SetLogStderrLevel(kLogNothing);
  SetLogLevel(kLogTrace);
  SetLogSink(&Sink::Receive, &sink_);
  SaySomethingOfTrace();
  EXPECT_THAT(sink_.Take(), ElementsAre(HasSubstr("2 LPCFrameTrace ")));
}

TEST_F(FrameDiagnostics, ARemovedSinkReceivesNothing) {
  SetLogStderrLevel(kLogNothing);
  SetLogSink(&Sink::Receive, &sink_);
  SetLogSink(nullptr, nullptr);
  SaySomethingOfError();
  EXPECT_THAT(sink_.Take(), IsEmpty());
}

TEST_F(FrameDiagnostics, OnlyErrorsGoToStderrUntilTheHostSaysOtherwise) {
  ::testing::internal::CaptureStderr();
  SaySomethingOfInformation();
  SaySomethingOfError();
  const std::string at_first = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(at_first, HasSubstr("dst_id is empty"));
  EXPECT_THAT(at_first, Not(HasSubstr("/information")));

  ::testing::internal::CaptureStderr();
  SetLogStderrLevel(kLogInformation);
  SaySomethingOfInformation();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("/information"));

  ::testing::internal::CaptureStderr();
  SetLogStderrLevel(kLogNothing);
  SaySomethingOfError();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), IsEmpty());
}

TEST_F(FrameDiagnostics, ALogFileReceivesTheSameLinesAsTheSink) {
  SetLogStderrLevel(kLogNothing);
  const TempDirectory folder;
  ASSERT_TRUE(SetLogFile((folder.path() / "frame.log").string(), 1 << 20, 1));
  SaySomethingOfTrace();
  SaySomethingOfInformation();
  SetLogFile("", 0, 0);
  SaySomethingOfError();
  std::ifstream file(folder.path() / "frame.log");
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  file.close();
  EXPECT_THAT(text, HasSubstr("Up RegisterUrl url[/information]"));
  EXPECT_THAT(text, Not(HasSubstr("AsyncSend")));
}

TEST_F(FrameDiagnostics, ALogFileThatCannotBeWrittenIsRefused) {
  SetLogStderrLevel(kLogNothing);
  const TempDirectory folder;
  std::ofstream(folder.path() / "no folder") << "but a file";
  EXPECT_FALSE(SetLogFile((folder.path() / "no folder" / "frame.log").string(), 1 << 20, 1));
}

}  // namespace
}  // namespace tolm::test
