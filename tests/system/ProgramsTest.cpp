// The programs that people start: examples, the tour, plugins by hand.

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "SystemTest.h"

namespace tolm::test {
namespace {

std::string Program(const std::string& name) {
  return std::string(TEST_PROGRAMS) + "/" + name;
}

using PluginByHand = SystemTest;

TEST_F(PluginByHand, WithoutArgumentsSaysWhatItIs) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin")});
  EXPECT_EQ(plugin.WaitExit(), (Exit{2, 0}));
  const std::string said = plugin.Output();
  EXPECT_NE(said.find("This is the plugin \"clock\": tells the time"), std::string::npos) << said;
  EXPECT_NE(said.find("--endpoint NAME"), std::string::npos) << said;
}

TEST_F(PluginByHand, WithAnUnknownOptionSaysSo) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpint", "x"});
  EXPECT_EQ(plugin.WaitExit(), (Exit{2, 0}));
  EXPECT_NE(plugin.Output().find("--endpint"), std::string::npos) << plugin.Output();
}

TEST_F(PluginByHand, WithoutAFrameSaysThatItWaitsAndEndsWhenItIsAsked) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpoint", "nobody"});
  EXPECT_TRUE(plugin.WaitForLine("plugin \"clock\": waiting for a frame at \"nobody\""));
  plugin.Signal(SIGTERM);
  EXPECT_EQ(plugin.WaitExit(), (Exit{0, 0})) << plugin.Output();
}

TEST_F(PluginByHand, WithAnEndpointThatCannotBeSaysSo) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpoint", "a/b"});
  EXPECT_EQ(plugin.WaitExit(), (Exit{1, 0}));
  EXPECT_TRUE(plugin.WaitForLine("cannot connect to \"a/b\": endpoint name not valid")) << plugin.Output();
}

using Examples = SystemTest;

TEST_F(Examples, HostGetsTheTimeOfTheClock) {
  Launch({Program("example_clock_plugin"), "--endpoint", "example"});
  ChildProcess& host = Launch({Program("example_host"), "example", "/clock/now", "clock"});
  EXPECT_EQ(host.WaitExit(), (Exit{0, 0})) << host.Output();
  EXPECT_TRUE(host.WaitForLine("clock answers: 1")) << host.Output();
}

TEST_F(Examples, HostGetsTheTimeThroughTheRelay) {
  Launch({Program("example_clock_plugin"), "--endpoint", "example"});
  Launch({Program("example_relay_plugin"), "--endpoint", "example"});
  ChildProcess& host = Launch({Program("example_host"), "example", "/relay/now", "clock", "relay"});
  EXPECT_EQ(host.WaitExit(), (Exit{0, 0})) << host.Output();
  EXPECT_TRUE(host.WaitForLine("relay answers: the clock says 1")) << host.Output();
}

class Tour : public SystemTest {
 protected:
  static pid_t PluginOf(ChildProcess& tour, const std::string& name) {
    const std::string line = tour.WaitForLine("tour_" + name + " --endpoint").value_or("");
    const std::string before = "which is process ";
    const std::size_t found = line.find(before);
    return found == std::string::npos ? -1 : std::stoi(line.substr(found + before.size()));
  }
};

TEST_F(Tour, ShowsEverythingAndEnds) {
  ChildProcess& tour = Launch({Program("frame_tour")});
  EXPECT_EQ(tour.WaitExit(), (Exit{0, 0})) << tour.Output();
  const std::string shown = tour.Output();
  for (const char* const line : {
           "✓ kitchen is connected",
           "✓ kitchen registers /kitchen/dish/<id>, time-out 5000 ms",
           "✓ waiter has finished its initialisation",
           "✓ kitchen answers \"dish 7 for table 4, no onions\"",
           "✓   with the part \"photo\", image/raw, bytes 00 01 ff 00",
           "✓ waiter answers \"here you are: dish 9 for table 5\"",
           "✓ waiter asks the host: GET /host/price",
           "✓ kitchen prints: heard the bell: table 5 is hungry",
           "✓ waiter pushes \"guests\": \"four people\"",
           "the connection ended before the answer came (GetLPCLastError: 7)",
           "✓ kitchen is disconnected",
           "✓ the process of kitchen has ended: killed by signal 9",
           "✓ kitchen answers \"dish 8 for table 6\"",
           "✓ waiter has uninitialised",
           "✓ the process of waiter has ended: exit status 0",
           "Everything went as it should",
       }) {
    EXPECT_NE(shown.find(line), std::string::npos) << line << "\nis not in\n" << shown;
  }
  EXPECT_EQ(shown.find('\033'), std::string::npos) << "colours are for terminals";
}

TEST_F(Tour, StaysUntilItIsInterrupted) {
  ChildProcess& tour = Launch({Program("frame_tour"), "--stay"});
  ASSERT_TRUE(tour.WaitForLine("--id guest")) << tour.Output();
  tour.Signal(SIGINT);
  EXPECT_EQ(tour.WaitExit(), (Exit{0, 0})) << tour.Output();
  EXPECT_TRUE(tour.WaitForLine("✓ the process of waiter has ended: exit status 0")) << tour.Output();
}

TEST_F(Tour, LeavesNoPluginsBehindWhenItIsKilled) {
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // orphans below this process become its children
  ChildProcess& tour = Launch({Program("frame_tour"), "--stay"});
  ASSERT_TRUE(tour.WaitForLine("--id guest")) << tour.Output();
  const pid_t waiter = PluginOf(tour, "waiter");
  ASSERT_GT(waiter, 0);
  tour.Signal(SIGKILL);
  EXPECT_EQ(tour.WaitExit(), (Exit{-1, SIGKILL}));
  int status = 0;
  ASSERT_EQ(::waitpid(waiter, &status, 0), waiter);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  while (::wait(&status) > 0) {  // the kitchen
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(Tour, SaysWhyItFails) {
  ::setenv("XDG_RUNTIME_DIR", "/dev/null", 1);
  ChildProcess& tour = Launch({Program("frame_tour")});
  EXPECT_EQ(tour.WaitExit(), (Exit{1, 0})) << tour.Output();
  EXPECT_TRUE(tour.WaitForLine("TolmLPCFrameInit gave -8")) << tour.Output();
}

}  // namespace
}  // namespace tolm::test
