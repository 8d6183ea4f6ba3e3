#include <cstdlib>
#include <string>
#include <vector>

#include "GuardScene.h"
#include "net/LocalPortFinder.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t Bytes(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  return a | static_cast<std::uint32_t>(b) << 8 | static_cast<std::uint32_t>(c) << 16 |
         static_cast<std::uint32_t>(d) << 24;
}

class GuardPortFinder : public GuardTest {
 protected:
  static CLocalPortFinder& Finder() { return CLocalPortFinder::GetInstance(); }

  void Tcp(std::vector<os::PortRow> rows) {
    system_.tcp_table = [rows](std::vector<os::PortRow>& out) {
      out.insert(out.end(), rows.begin(), rows.end());
      return true;
    };
  }
  void Udp(std::vector<os::PortRow> rows) {
    system_.udp_table = [rows](std::vector<os::PortRow>& out) {
      out.insert(out.end(), rows.begin(), rows.end());
      return true;
    };
  }
  /// What the next search begins with, for this seed.
  static int BaseOf(unsigned seed) {
    std::srand(seed);
    const int base = std::rand() % 32768 + 1024;
    std::srand(seed);
    return base;
  }
  /// The ports that a search which begins at `base` tries: base+1, base+3, base+6, ...
  static std::vector<os::PortRow> Candidates(int base, int count) {
    std::vector<os::PortRow> rows;
    int candidate = base;
    for (int i = 1; i <= count; ++i) {
      candidate += i;
      rows.push_back(Held(static_cast<std::uint16_t>(candidate)));
    }
    return rows;
  }
};

// Whether a port is held.

TEST_F(GuardPortFinder, APortIsHeldByATcpOrUdpRowWithAnOwner) {
  Tcp({Held(10), Held(11)});
  Udp({Held(20)});
  EXPECT_TRUE(Finder().IsPortInUse(10));
  EXPECT_TRUE(Finder().IsPortInUse(11));
  EXPECT_TRUE(Finder().IsPortInUse(20));
  EXPECT_FALSE(Finder().IsPortInUse(12));
}

TEST_F(GuardPortFinder, TheTablesAreReadInOrderAndUdpOnlyWhenTcpHasNoMatch) {
  Tcp({Held(10)});
  Udp({Held(20)});
  Finder().IsPortInUse(10);
  Finder().IsPortInUse(20);
  EXPECT_THAT(Journal::Of("table."), ElementsAre("table.Tcp", "table.Tcp", "table.Udp"));
}

TEST_F(GuardPortFinder, ARowWithoutAnOwnerHoldsNothingWhateverItsState) {
  for (const std::uint32_t state : {0u, 1u, 2u, 11u}) {
    os::PortRow row = Held(10, 0);
    row.state = state;
    Tcp({row});
    Udp({row});
    EXPECT_FALSE(Finder().IsPortInUse(10)) << state;
  }
}

TEST_F(GuardPortFinder, AnOwnerThatMayNotBeSeenHoldsItsPort) {
  Tcp({Held(10, os::kUnknownOwner)});
  EXPECT_TRUE(Finder().IsPortInUse(10));
}

TEST_F(GuardPortFinder, EveryStateOfATcpSocketHoldsItsLocalPortAndNotTheRemoteOne) {
  os::PortRow row = Held(10);
  row.state = 5;
  row.remote_port = 30;
  Tcp({row});
  EXPECT_TRUE(Finder().IsPortInUse(10));
  EXPECT_FALSE(Finder().IsPortInUse(30));
}

TEST_F(GuardPortFinder, ATableThatCannotBeReadHoldsNothing) {
  system_.tcp_table = false;
  Udp({Held(20)});
  EXPECT_FALSE(Finder().IsPortInUse(10));
  EXPECT_TRUE(Finder().IsPortInUse(20));
  system_.udp_table = false;
  EXPECT_FALSE(Finder().IsPortInUse(20));
}

// The search.

TEST_F(GuardPortFinder, TheFirstPortIsOneBehindARandomOneOfThirtyTwoThousand) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const int base = BaseOf(seed);
    const int port = Finder().GetFreePort();
    EXPECT_EQ(port, base + 1);
    EXPECT_GE(port, 1025);
    EXPECT_LE(port, 33792);
  }
}

TEST_F(GuardPortFinder, TheStepGrowsByOneWithEachPortThatIsHeld) {
  for (int held = 0; held <= 48; ++held) {
    const int base = BaseOf(7);
    Tcp(Candidates(base, held));
    EXPECT_EQ(Finder().GetFreePort(), base + (held + 1) * (held + 2) / 2) << held;
  }
}

TEST_F(GuardPortFinder, TheLastOfFortyNinePortsIsStillTakenAndThenThereIsNone) {
  const int base = BaseOf(9);
  Udp(Candidates(base, 48));
  EXPECT_EQ(Finder().GetFreePort(), base + 1225);
  BaseOf(9);
  Udp(Candidates(base, 49));
  Journal::Clear();
  EXPECT_EQ(Finder().GetFreePort(), 0);
  EXPECT_EQ(Journal::Count("table.Udp"), 49u);
}

TEST_F(GuardPortFinder, EachSearchTakesOneRandomNumberAndSeedsNothing) {
  std::srand(5);
  const int first = std::rand();
  const int second = std::rand();
  std::srand(5);
  EXPECT_EQ(Finder().GetFreePort(), first % 32768 + 1025);
  EXPECT_EQ(Finder().GetFreePort(), second % 32768 + 1025);
}

TEST_F(GuardPortFinder, TablesThatCannotBeReadLeaveEveryPortFree) {
  system_.tcp_table = false;
  system_.udp_table = false;
  const int base = BaseOf(3);
  EXPECT_EQ(Finder().GetFreePort(), base + 1);
}

// The tables.

TEST_F(GuardPortFinder, ATcpRowIsTakenOverFieldByField) {
  os::PortRow row;
  row.local_address = Bytes(127, 0, 0, 1);
  row.local_port = 8123;
  row.remote_address = Bytes(10, 20, 30, 255);
  row.remote_port = 443;
  row.state = 5;
  row.owning_process_id = 99;
  Tcp({row, Held(4)});
  std::vector<PortTableEntry> entries(1);
  EXPECT_TRUE(Finder().CollectTcpTable(entries));
  ASSERT_EQ(entries.size(), 3u);  // behind what was there
  EXPECT_EQ(entries[1].local_address, "127.0.0.1");
  EXPECT_EQ(entries[1].local_port, 8123u);
  EXPECT_EQ(entries[1].remote_address, "10.20.30.255");
  EXPECT_EQ(entries[1].remote_port, 443u);
  EXPECT_EQ(entries[1].state, 5u);
  EXPECT_EQ(entries[1].owning_process_id, 99u);
  EXPECT_EQ(entries[2].local_port, 4u);
}

TEST_F(GuardPortFinder, AListeningSocketHasNoRemotePort) {
  os::PortRow row = Held(8123);
  row.remote_port = 443;
  row.state = os::kTcpStateListen;
  Tcp({row});
  std::vector<PortTableEntry> entries;
  EXPECT_TRUE(Finder().CollectTcpTable(entries));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].remote_port, 0u);
  EXPECT_EQ(entries[0].state, 2u);
}

TEST_F(GuardPortFinder, OfAUdpRowOnlyTheLocalEndAndTheOwnerAreTaken) {
  os::PortRow row;
  row.local_address = Bytes(0, 0, 0, 0);
  row.local_port = 53;
  row.remote_address = Bytes(1, 2, 3, 4);
  row.remote_port = 9;
  row.state = 7;
  row.owning_process_id = 99;
  Udp({row});
  std::vector<PortTableEntry> entries;
  EXPECT_TRUE(Finder().CollectUdpTable(entries));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].local_address, "0.0.0.0");
  EXPECT_EQ(entries[0].local_port, 53u);
  EXPECT_EQ(entries[0].owning_process_id, 99u);
  EXPECT_EQ(entries[0].remote_address, "");
  EXPECT_EQ(entries[0].remote_port, 0u);
  EXPECT_EQ(entries[0].state, 0u);
}

TEST_F(GuardPortFinder, ATableThatTheSystemDoesNotTellIsFalseAndAddsNothing) {
  system_.tcp_table = false;
  system_.udp_table = false;
  std::vector<PortTableEntry> entries;
  EXPECT_FALSE(Finder().CollectTcpTable(entries));
  EXPECT_FALSE(Finder().CollectUdpTable(entries));
  EXPECT_THAT(entries, IsEmpty());
}

TEST_F(GuardPortFinder, AddressesAreWrittenInMemoryOrder) {
  EXPECT_EQ(FormatIpv4(Bytes(1, 2, 3, 4)), "1.2.3.4");
  EXPECT_EQ(FormatIpv4(Bytes(255, 255, 255, 255)), "255.255.255.255");
  EXPECT_EQ(FormatIpv4(0), "0.0.0.0");
}

}  // namespace
}  // namespace tolm::test
