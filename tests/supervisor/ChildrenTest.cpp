#include "Children.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/Wait.h"

namespace guard {
namespace {

using tolm::test::WaitFor;

/// What a real process did.
struct Witness {
  std::mutex mutex;
  std::string output;
  std::optional<os::ProcessEnd> end;

  bool HasEnded() {
    const std::lock_guard lock(mutex);
    return end.has_value();
  }
  bool HasWritten(const std::string& text) {
    const std::lock_guard lock(mutex);
    return output.find(text) != std::string::npos;
  }
};

/// A program that does one thing.
os::ProcessRequest Program(std::vector<std::string> arguments, const std::shared_ptr<Witness>& witness) {
  os::ProcessRequest request;
  request.program = TEST_STAND_IN;
  request.arguments = std::move(arguments);
  request.on_output = [witness](std::string_view bytes) {
    const std::lock_guard lock(witness->mutex);
    witness->output += bytes;
  };
  request.on_end = [witness](const os::ProcessEnd& end) {
    const std::lock_guard lock(witness->mutex);
    witness->end = end;
  };
  return request;
}

TEST(Children, ARealProcessIsHeardAndItsEndIsTold) {
  Children children;
  const auto witness = std::make_shared<Witness>();
  std::string why;
  const auto process = children.Start(Program({"--say", "hello", "3"}, witness), why);
  ASSERT_NE(process, nullptr) << why;
  EXPECT_GT(process->id(), 0);
  ASSERT_TRUE(WaitFor([&] { return witness->HasEnded() && witness->HasWritten("hello"); }));
  EXPECT_EQ(witness->end->exit_status, 3);
}

TEST(Children, AProcessThatIsLetGoIsKilledOnceTheyAreGone) {
  const auto witness = std::make_shared<Witness>();
  {
    Children children;
    std::string why;
    auto process = children.Start(Program({"--wait"}, witness), why);
    ASSERT_NE(process, nullptr) << why;
    ASSERT_TRUE(WaitFor([&] { return witness->HasWritten("waits"); }));
    process->AskToEnd();
    EXPECT_FALSE(witness->HasEnded());
    process.reset();
  }
  ASSERT_TRUE(witness->HasEnded()) << "nothing of it is left behind";
  EXPECT_NE(os::Describe(*witness->end), "exit status 0");
}

TEST(Children, AProgramThatCannotBeStartedSaysWhy) {
  Children children;
  os::ProcessRequest request;
  request.program = "/nowhere/at/all";
  std::string why;
  EXPECT_EQ(children.Start(request, why), nullptr);
  EXPECT_NE(why.find("/nowhere/at/all"), std::string::npos) << why;
}

}  // namespace
}  // namespace guard
