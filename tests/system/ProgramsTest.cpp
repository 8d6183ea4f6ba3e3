// The programs that people start: examples, the tour, plugins by hand.

#include <filesystem>
#include <string>

#include "SystemTest.h"
#include "support/Processes.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

std::string Program(const std::string& name) {
  return ProgramFile(std::string(TEST_PROGRAMS) + "/" + name).string();
}

using PluginByHand = SystemTest;

TEST_F(PluginByHand, WithoutArgumentsSaysWhatItIs) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin")});
  EXPECT_EQ(plugin.WaitExit(), (Exit{2, false}));
  const std::string said = plugin.Output();
  EXPECT_NE(said.find("This is the plugin \"clock\": tells the time"), std::string::npos) << said;
  EXPECT_NE(said.find("--endpoint NAME"), std::string::npos) << said;
}

TEST_F(PluginByHand, WithAnUnknownOptionSaysSo) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpint", "x"});
  EXPECT_EQ(plugin.WaitExit(), (Exit{2, false}));
  EXPECT_NE(plugin.Output().find("--endpint"), std::string::npos) << plugin.Output();
}

TEST_F(PluginByHand, WithoutAFrameSaysThatItWaitsAndEndsWhenItIsAsked) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpoint", "nobody"});
  EXPECT_TRUE(plugin.WaitForLine("plugin \"clock\": waiting for a frame at \"nobody\""));
  plugin.AskToEnd();
  EXPECT_EQ(plugin.WaitExit(), (Exit{0, false})) << plugin.Output();
}

TEST_F(PluginByHand, WithAnEndpointThatCannotBeSaysSo) {
  ChildProcess& plugin = Launch({Program("example_clock_plugin"), "--endpoint", "a/b"});
  EXPECT_EQ(plugin.WaitExit(), (Exit{1, false}));
  EXPECT_TRUE(plugin.WaitForLine("cannot connect to \"a/b\": endpoint name not valid")) << plugin.Output();
}

using Examples = SystemTest;

TEST_F(Examples, HostGetsTheTimeOfTheClock) {
  Launch({Program("example_clock_plugin"), "--endpoint", "example"});
  ChildProcess& host = Launch({Program("example_host"), "example", "/clock/now", "clock"});
  EXPECT_EQ(host.WaitExit(), (Exit{0, false})) << host.Output();
  EXPECT_TRUE(host.WaitForLine("clock answers: 1")) << host.Output();
}

TEST_F(Examples, HostGetsTheTimeThroughTheRelay) {
  Launch({Program("example_clock_plugin"), "--endpoint", "example"});
  Launch({Program("example_relay_plugin"), "--endpoint", "example"});
  ChildProcess& host = Launch({Program("example_host"), "example", "/relay/now", "clock", "relay"});
  EXPECT_EQ(host.WaitExit(), (Exit{0, false})) << host.Output();
  EXPECT_TRUE(host.WaitForLine("relay answers: the clock says 1")) << host.Output();
}

class Tour : public SystemTest {
 protected:
  /// The host's folder that the tour has laid out.
  static std::filesystem::path FolderOf(ChildProcess& tour) {
    const std::string before = "The host's folder is ";
    const std::string line = tour.WaitForLine(before).value_or("");
    const std::size_t found = line.find(before);
    return found == std::string::npos ? std::string() : line.substr(found + before.size());
  }
};

TEST_F(Tour, ShowsEverythingAndEnds) {
  ChildProcess& tour = Launch({Program("frame_tour")});
  EXPECT_EQ(tour.WaitExit(), (Exit{0, false})) << tour.Output();
  const std::string shown = tour.Output();
  for (const char* const line : {
           "✓ the agent starts as process ",
           "✓ a guard has connected",
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
           "✓ kitchen is not initialised any more",
           "✓ kitchen answers \"dish 8 for table 6\"",
           "✓ waiter is disconnected",
           "✓ kitchen answers \"dish 10 for table 3\"",
           "✓ waiter has uninitialised",
           "✓ no process but the host, no endpoint, no event, no lock; the folder goes now",
           "Everything went as it should",
       }) {
    EXPECT_NE(shown.find(line), std::string::npos) << line << "\nis not in\n" << shown;
  }
  EXPECT_EQ(shown.find('\033'), std::string::npos) << "colours are for terminals";
  EXPECT_FALSE(std::filesystem::exists(FolderOf(tour)));
}

TEST_F(Tour, StaysUntilItIsInterrupted) {
  ChildProcess& tour = Launch({Program("frame_tour"), "--stay"});
  ASSERT_TRUE(tour.WaitForLine("--id guest")) << tour.Output();
  tour.Interrupt();
  EXPECT_EQ(tour.WaitExit(), (Exit{0, false})) << tour.Output();
  EXPECT_TRUE(tour.WaitForLine("✓ no process but the host")) << tour.Output();
}

TEST_F(Tour, LeavesNobodyBehindWhenItIsKilled) {
  ChildProcess& tour = Launch({Program("frame_tour"), "--stay"});
  const std::filesystem::path folder = FolderOf(tour);
  ASSERT_FALSE(folder.empty());
  ASSERT_TRUE(tour.WaitForLine("--id guest")) << tour.Output();
  EXPECT_FALSE(ProcessesBelow(folder).empty());
  tour.Kill();
  EXPECT_EQ(tour.WaitExit(), kKilled);
  EXPECT_TRUE(tolm::test::WaitFor([&] { return ProcessesBelow(folder).empty(); }, kPatience));
  std::filesystem::remove_all(folder);
}

TEST_F(Tour, SaysWhyItFails) {
  const EnvironmentValue tmpdir("TMPDIR", "/nowhere");
  const EnvironmentValue tmp("TMP", "/nowhere");  // of systems that have no TMPDIR
  ChildProcess& tour = Launch({Program("frame_tour")});
  EXPECT_EQ(tour.WaitExit(), (Exit{1, false})) << tour.Output();
  EXPECT_TRUE(tour.WaitForLine("nowhere")) << tour.Output();
}

}  // namespace
}  // namespace tolm::test
