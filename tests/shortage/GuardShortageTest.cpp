// The link to the guard with too little memory: sooner or later each guard is told which plugins it may
// start.

#include <cstdint>
#include <string>

#include "GuardScene.h"
#include "ScarceMemory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;

class GuardShortage : public GuardTest {
 protected:
  void Begin() {
    ForgetEverything(Endpoint());
    ForgetEverything(Guard());
    net_.Reset();
    net_.send = [](const SentFrame& frame) {
      return frame.socket_id < 0 ? 2 : 0;
    };  // as long as there is no guard
    Journal::Clear();
    ASSERT_EQ(StartWithPort(Plugins({"A"})), kFrameOk);
  }
  bool IsTold(std::int32_t guard) const { return NoticesByConnection()[guard] > 0; }
  static bool IsClosed(std::int32_t guard) {
    const auto closed = Journal::Of("net.Close");
    return std::find(closed.begin(), closed.end(), "net.Close " + std::to_string(guard)) != closed.end();
  }
  /// That a guard which comes after guard 7 has gone is told, once.
  void ExpectTheNextIsTold(std::uint64_t number) {
    net_.Close(7);
    Connect(8);
    EXPECT_TRUE(WaitFor([this] { return IsTold(8); })) << number;
    EXPECT_EQ(NoticesByConnection()[8], 1) << number;
    EXPECT_EQ(TolmLPCFrameUnInit(), kFrameOk) << number;
  }
};

TEST_F(GuardShortage, AnAnnouncementThatFailsDoesNotSpoilTheNext) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    Begin();
    Connect(7);
    const std::uint64_t refused =
        Without(number, ScarceMemory::Of::kThisThread, [&] { TolmLPCFrameNotifyStartPlugins("c"); });
    TolmLPCFrameNotifyStartPlugins("c");
    EXPECT_TRUE(IsTold(7)) << number;
    ExpectTheNextIsTold(number);
    return refused;
  });
  EXPECT_GE(trials, 30);
}

TEST_F(GuardShortage, AGuardWhoseComingIsNotTakenInIsSentAway) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    Begin();
    TolmLPCFrameNotifyStartPlugins("c");
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread, [&] { net_.Handshake(7); });
    EXPECT_TRUE(WaitFor([this] { return IsTold(7) || IsClosed(7); })) << number;
    ExpectTheNextIsTold(number);
    return refused;
  });
  EXPECT_GE(trials, 5);
}

TEST_F(GuardShortage, AGuardThatCannotBeToldIsSentAwayOrTheLogHasIt) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    Begin();
    TolmLPCFrameNotifyStartPlugins("c");
    FromNowOn();
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kOtherThreads, [&] {
      net_.Handshake(7);
      // What the stand-ins are refused looks like a server that throws.
      EXPECT_TRUE(WaitFor([this] {
        return IsTold(7) || IsClosed(7) || !LinesOf("SendFrameInitState").empty();
      })) << number;
    });
    ExpectTheNextIsTold(number);
    return refused;
  });
  EXPECT_GE(trials, 10);
}

TEST_F(GuardShortage, AGuardThatComesAfterAnEndThatWasNotTakenInIsTold) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    Begin();
    TolmLPCFrameNotifyStartPlugins("c");
    Connect(7);
    EXPECT_TRUE(WaitFor([this] { return IsTold(7); })) << number;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread, [&] { net_.Close(7); });
    Connect(8);
    EXPECT_TRUE(WaitFor([this] { return IsTold(8); })) << number;
    EXPECT_EQ(TolmLPCFrameUnInit(), kFrameOk) << number;
    return refused;
  });
  EXPECT_GE(trials, 3);
}

}  // namespace
}  // namespace tolm::test
