#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "GuardedTest.h"

namespace tolm::test {

/// A host whose guard is "independent_guard.py", which knows nothing of this system but what
/// docs/wire/guard-messages.md says. What does not agree with that page fails the test.
class IndependentGuardTest : public GuardedTest {
 protected:
  void SetUp() override {
    if (*TEST_PYTHON == '\0') GTEST_SKIP() << TEST_NO_PYTHON;
  }
  void TearDown() override {
    for (const ChildProcess* guard : guards_) {
      EXPECT_EQ(guard->CountLines("wrong:"), 0U) << guard->Output();
      EXPECT_EQ(guard->CountLines("Traceback"), 0U) << guard->Output();
    }
    GuardedTest::TearDown();
  }

  /// Starts a guard and waits until the frame knows it, which is a moment after the handshake.
  ChildProcess& StartGuard(ChildProcess& host, const std::vector<std::string>& options = {},
                           const std::string& element = "ServerPort") {
    const std::size_t known = host.CountLines("Get client info");
    std::vector<std::string> command{
        TEST_PYTHON, TEST_INDEPENDENT_GUARD, "--config", folder_.Config().string(), "--element", element};
    command.insert(command.end(), options.begin(), options.end());
    ChildProcess& guard = Launch(std::move(command));
    guards_.push_back(&guard);
    EXPECT_TRUE(guard.WaitForLine("connected"));
    EXPECT_TRUE(host.WaitForLines("Get client info", known + 1));
    return guard;
  }

  /// Starts the host with these plugins listed, none of which needs to exist.
  ChildProcess& StartHostWith(const std::vector<std::string>& plugins) {
    std::vector<std::string> command{folder_.Host().string(), "--frame-type", "0", "--log", "info"};
    for (const std::string& id : plugins) command.insert(command.end(), {"--plugin", id});
    ChildProcess& host = Launch(std::move(command));
    EXPECT_TRUE(host.WaitForLine("the frame listens as \"host\""));
    return host;
  }

  /// As Announce, but when there is no guard.
  static void AnnounceToNobody(ChildProcess& host) { host.Type("announce --endpoint host"); }

  /// Checks that the frame answers on this guard's connection. What it has sent there before has been read
  /// then; what the guard has sent before may still wait, since several threads of the frame handle it.
  void ExpectAnswered(ChildProcess& guard) {
    const std::string guid = "check-" + std::to_string(++questions_);
    guard.Type("ask GetMianProcessPath " + guid);
    EXPECT_TRUE(guard.WaitForLine("answer GetMianProcessPath " + guid + ": " + folder_.Host().string()));
  }

  /// What the frame says of its plugins: "a=1 b=0".
  std::string States(ChildProcess& guard) {
    const std::string guid = "states-" + std::to_string(++questions_);
    guard.Type("ask GetProcessInitStateList " + guid);
    const std::string before = "answer GetProcessInitStateList " + guid + ": ";
    return guard.WaitForLine(before).value_or(before + "no answer").substr(before.size());
  }

  /// Whether the first of both was printed before the second.
  static bool InOrder(const ChildProcess& child, const std::string& first, const std::string& second) {
    const std::string printed = child.Output();
    const std::size_t behind = printed.find(second);
    return behind != std::string::npos && printed.find(first) < behind;
  }

 private:
  int questions_ = 0;
  std::vector<ChildProcess*> guards_;
};

}  // namespace tolm::test
