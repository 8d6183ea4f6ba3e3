#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

#include "KRT/KRT.h"
#include "support/Wait.h"

namespace {

TEST(Tick, NeverGoesBack) {
  std::int64_t last = KRT_GetTimeTick64();
  for (int i = 0; i < 10'000; ++i) {
    const std::int64_t now = KRT_GetTimeTick64();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Tick, Advances) {
  const std::int64_t start = KRT_GetTimeTick64();
  EXPECT_TRUE(tolm::test::WaitFor([start] { return KRT_GetTimeTick64() > start; }));
}

TEST(Sleep, LastsAtLeastAsLongAsWasAsked) {
  const std::int64_t start = KRT_GetTimeTick64();
  KRT_Sleep(30);
  // The tick is cut to whole milliseconds at both ends.
  EXPECT_GE(KRT_GetTimeTick64() - start, 29);
}

TEST(Sleep, OfNothingOrLessReturns) {
  // A negative time must not become a very long one; if it does, the test runs into its time-out.
  KRT_Sleep(0);
  KRT_Sleep(-1);
  KRT_Sleep(INT_MIN);
}

}  // namespace
