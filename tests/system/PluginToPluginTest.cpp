// Plugins call each other through the frame.

#include <future>
#include <string>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class PluginToPlugin : public SystemTest {
 protected:
  void SetUp() override {
    StartFrame({"a", "b"});
    a_ = &StartPlugin("a");
    b_ = &StartPlugin("b");
  }

  /// Lets plugin a call `url`.
  static Answer LetACall(const std::string& url, std::chrono::milliseconds time_out) {
    auto request = Request("/a/relay", url);
    request.http_headers["X-Time-Out"] = std::to_string(time_out.count());
    return Call(request);
  }

  ChildProcess* a_ = nullptr;
  ChildProcess* b_ = nullptr;
};

TEST_F(PluginToPlugin, ACallIsAnswered) {
  const Answer answer = LetACall("/b/echo", kPatience);
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "got relayed");
}

TEST_F(PluginToPlugin, ACallWithoutWaitingIsAnswered) {
  ASSERT_TRUE(Call(Request("/a/later", "/b/echo")).came);
  EXPECT_EQ(a_->WaitForLine("later"), "later relayed");
}

TEST_F(PluginToPlugin, TheCallersTimeOutEndsTheWaitOfTheFrame) {
  const auto limit = Clock::now() + 4500ms;
  const Answer answer = LetACall("/b/block", 300ms);
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "error " + std::to_string(kTimeOut));
  // Without the caller's time-out the frame would wait for its own five seconds.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
  EXPECT_TRUE(host_.WaitForLog("Send faild, the error code is 8.", left));
  KillPlugin(*b_, "b");
}

TEST_F(PluginToPlugin, ATargetThatIsKilledEndsTheWaitOfTheFrameAndTheCallersTimeOutItsOwn) {
  auto call = std::async(std::launch::async, [] { return LetACall("/b/block", 1500ms); });
  ASSERT_TRUE(b_->WaitForLine("blocked"));
  KillPlugin(*b_, "b");
  EXPECT_TRUE(host_.WaitForLog("Send faild, the error code is 7."));
  const Answer answer = call.get();
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "error " + std::to_string(kTimeOut));
}

TEST_F(PluginToPlugin, ATargetThatReturnsIsReached) {
  KillPlugin(*b_, "b");
  StartPlugin("b");
  const Answer answer = LetACall("/b/echo", kPatience);
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "got relayed");
}

TEST_F(PluginToPlugin, APluginReachesItself) {
  const Answer answer = LetACall("/a/echo", kPatience);
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "got relayed");
}

}  // namespace
}  // namespace tolm::test
