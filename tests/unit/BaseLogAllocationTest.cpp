// Counts what the whole program allocates with new, on each thread.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "TolmBase/LogLine.h"
#include "support/OwnNew.h"

namespace {

thread_local std::size_t t_allocations = 0;

}  // namespace

bool tolm::test::MayAllocate(std::size_t /*size*/) noexcept {
  ++t_allocations;
  return true;
}

namespace {

using namespace Tolm::Base;

std::size_t g_received = 0;

class LogAllocation : public testing::Test {
 protected:
  LogAllocation() {
    SetLogStderrLevel(kLogLevelOff);
    SetLogCallback([](int, const char*, const char*, void*) { ++g_received; }, nullptr, kLogLevelInfo);
    // The first line makes what is made once.
    TOLM_LOG(3, "tag", "first");
    g_received = 0;
    t_allocations = 0;
  }
  ~LogAllocation() override {
    SetLogCallback(nullptr, nullptr, kLogLevelOff);
    SetLogStderrLevel(kLogLevelError);
  }
};

TEST_F(LogAllocation, AShortLineNeedsNone) {
  TOLM_LOG(3, "tag", "url=[%s], msg_id=[%d]", "/some/url", 7);
  EXPECT_EQ(t_allocations, 0U);
  EXPECT_EQ(g_received, 1U);
}

TEST_F(LogAllocation, ALongLineNeedsOne) {
  const std::string body(10'000, 'b');
  t_allocations = 0;
  TOLM_LOG(3, "tag", "body=[%s]", body.c_str());
  EXPECT_EQ(t_allocations, 1U);
  EXPECT_EQ(g_received, 1U);
}

TEST_F(LogAllocation, ALineThatNobodyWantsNeedsNoneForItsArgumentsEither) {
  TOLM_LOG(2, "tag", "%s", std::string(10'000, 'm').c_str());
  EXPECT_EQ(t_allocations, 0U);
  EXPECT_EQ(g_received, 0U);
}

}  // namespace
