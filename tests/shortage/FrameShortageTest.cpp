// The frame's start and stop with too little memory, over the real transport.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>

#include "ScarceMemory.h"
#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "support/OwnResources.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

namespace fs = std::filesystem;

class FrameShortage : public testing::Test {
 protected:
  FrameShortage() {
    TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
    EXPECT_TRUE(Start() && Stop());
    threads_without_it_ = RunningThreads();
  }

  static bool Start() { return TolmLPCFrame::TolmLPCFrameInit("shortage", {}) == TolmLPCFrame::kFrameOk; }
  static bool Stop() { return TolmLPCFrame::TolmLPCFrameUnInit() == TolmLPCFrame::kFrameOk; }
  void ExpectThatNothingRuns(std::uint64_t number) const {
    EXPECT_TRUE(WaitFor([this] { return RunningThreads() == threads_without_it_; })) << number;
    EXPECT_TRUE(fs::is_empty(directory_.endpoints())) << number;
  }

  const RuntimeDirectory directory_;
  long threads_without_it_ = 0;
};

TEST_F(FrameShortage, AStartThatFailsIsTakenBack) {
  int failed = 0;
  const int trials = RefuseEach([&](std::uint64_t number) {
    bool started = false;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread, [&] { started = Start(); });
    if (!started) {
      ++failed;
      ExpectThatNothingRuns(number);
      EXPECT_TRUE(Start()) << number;
    }
    EXPECT_TRUE(Stop()) << number;
    return refused;
  });
  EXPECT_GE(trials, 50);
  EXPECT_GE(failed, 10);
}

TEST_F(FrameShortage, AStopGoesOnWhateverFailsInIt) {
  const int trials = RefuseEach([&](std::uint64_t number) {
    EXPECT_TRUE(Start()) << number;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kAllThreads, [&] { Stop(); });
    ExpectThatNothingRuns(number);
    return refused;
  });
  EXPECT_GE(trials, 5);
}

}  // namespace
}  // namespace tolm::test
