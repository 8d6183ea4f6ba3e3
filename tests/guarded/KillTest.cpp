// Death at random, under load.

#include <random>
#include <string>
#include <vector>

#include "GuardedTest.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

constexpr int kKills = TEST_SANITIZED ? 30 : 200;

using LongKill = GuardedTest;

TEST_F(LongKill, OfPluginsAndGuardsUnderLoadEndsEveryCallAndLeavesNobody) {
  const std::string never_give_up =
      R"("restart": {"giveUpAfter": 10000, "firstDelayMs": 5, "maxDelayMs": 20})";
  const std::vector<std::string> ids{"a", "b", "c"};
  for (const std::string& id : ids) folder_.AddPlugin(id, {}, never_give_up);
  ChildProcess& host = StartAll();

  std::minstd_rand random(20261121);
  int calls = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    for (const std::string& id : ids) {
      for (int i = 0; i < 5; ++i, ++calls) host.Type("call /" + id + "/echo " + std::to_string(calls));
    }
    // The guard now and then, a plugin mostly.
    const auto program = random() % 8 == 0 ? folder_.Guard() : folder_.Plugin(ids[random() % ids.size()]);
    std::vector<ProcessId> victims;
    ASSERT_TRUE(WaitFor([&] { return !(victims = folder_.ProcessesOf(program)).empty(); }, kPatience))
        << program;
    KillProcess(victims.front());
  }

  const auto ended = [&] { return host.CountLines("answer from ") + host.CountLines("no answer, error "); };
  EXPECT_TRUE(WaitFor([&] { return ended() == static_cast<std::size_t>(calls); }, kPatience))
      << ended() << " of " << calls << " calls have ended";
  const auto serves = [&](const std::string& id) {
    return WaitFor(
        [&] { return Call(host, "/" + id + "/echo", "after all") == "answer from " + id + ": after all"; },
        kPatience);
  };
  CountCalls(host, calls);
  for (const std::string& id : ids) EXPECT_TRUE(serves(id)) << id << " does not come back";
  StopHost(host);
}

}  // namespace
}  // namespace tolm::test
