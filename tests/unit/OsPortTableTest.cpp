// The system's tables of sockets: what they tell of sockets that the tests make.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "LoopbackSocket.h"
#include "OsRoles.h"
#include "PortRows.h"
#include "os/PortTable.h"
#include "support/ChildProcess.h"
#include "support/Wait.h"

namespace os {
namespace {

using tolm::test::LoopbackSocket;

constexpr char kNoOwners[] = "this system does not tell whose a socket is";

TEST(OsPortTable, ShowsAListeningSocket) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const auto row = RowOf(ReadTcpTable, listening.port(), 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->state, kTcpStateListen);
  EXPECT_EQ(row->remote_address, 0u);
}

TEST(OsPortTable, ShowsBothEndsOfAConnection) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket far = listening.Accepted();
  for (const auto& [local, remote] : {std::pair(&near, &far), std::pair(&far, &near)}) {
    const auto row = RowOf(ReadTcpTable, local->port(), remote->port());
    ASSERT_TRUE(row);
    EXPECT_EQ(row->state, kEstablished);
    EXPECT_EQ(row->remote_address, kLoopback);
  }
}

TEST(OsPortTable, ShowsAUdpSocketWithoutStateAndRemoteEnd) {
  const LoopbackSocket bound = LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);
  const LoopbackSocket other = LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);
  bound.ConnectTo(other.port());
  const auto row = RowOf(ReadUdpTable, bound.port(), 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->state, 0u);
  EXPECT_EQ(row->remote_address, 0u);
}

TEST(OsPortTable, TellsWhoseASocketIs) {
  if (!TellsOwners()) GTEST_SKIP() << kNoOwners;
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket far = listening.Accepted();
  const LoopbackSocket bound = LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);
  for (const auto& row :
       {RowOf(ReadTcpTable, listening.port(), 0), RowOf(ReadTcpTable, near.port(), far.port()),
        RowOf(ReadTcpTable, far.port(), near.port()), RowOf(ReadUdpTable, bound.port(), 0)}) {
    ASSERT_TRUE(row);
    EXPECT_EQ(row->owning_process_id, OwnId());
  }
  // Somebody else may have the port for TCP.
  const auto tcp = Row(ReadTcpTable, bound.port(), 0);
  EXPECT_TRUE(!tcp || tcp->owning_process_id != OwnId()) << "each table has its own kind";
}

TEST(OsPortTable, TellsTheOwnerInAnotherProcess) {
  if (!TellsOwners()) GTEST_SKIP() << kNoOwners;
  tolm::test::ChildProcess child(tolm::test::InRole({"hold-socket"}));
  const auto told = child.WaitForLine("port ");
  ASSERT_TRUE(told);
  const auto port = static_cast<std::uint16_t>(std::stoi(told->substr(5)));
  const auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(child.id()));
}

TEST(OsPortTable, ForgetsASocketThatIsClosed) {
  LoopbackSocket listening = LoopbackSocket::Listening();
  LoopbackSocket bound = LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);
  const std::uint16_t tcp_port = listening.port();
  const std::uint16_t udp_port = bound.port();
  listening.Close();
  bound.Close();
  // Somebody else may have got the port meanwhile.
  const auto tcp = Row(ReadTcpTable, tcp_port, 0);
  const auto udp = Row(ReadUdpTable, udp_port, 0);
  EXPECT_TRUE(!tcp || tcp->owning_process_id != OwnId());
  EXPECT_TRUE(!udp || udp->owning_process_id != OwnId());
}

TEST(OsPortTable, TheRestOfAClosedConnectionHasNoOwner) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  LoopbackSocket far = listening.Accepted();
  const std::uint16_t local = near.port();
  const std::uint16_t remote = far.port();
  near.Close();  // who closes first keeps the rest
  ASSERT_TRUE(far.WaitForEnd());
  far.Close();
  std::optional<PortRow> row;
  ASSERT_TRUE(tolm::test::WaitFor([&] {
    row = Row(ReadTcpTable, local, remote);
    return row && row->state == kTimeWait;
  }));
  EXPECT_EQ(row->owning_process_id, 0u);
}

TEST(OsPortTable, AppendsToWhatIsThere) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  std::vector<PortRow> rows(2);
  rows[1].local_port = 4711;
  ASSERT_TRUE(ReadOf(ReadTcpTable, rows));
  EXPECT_GT(rows.size(), 2u);
  EXPECT_EQ(rows[0].local_port, 0u);
  EXPECT_EQ(rows[1].local_port, 4711u);
}

TEST(OsPortTable, ShowsManySockets) {
  std::vector<LoopbackSocket> sockets;
  for (int i = 0; i < 200; ++i) sockets.push_back(LoopbackSocket::Listening());
  EXPECT_TRUE(tolm::test::WaitFor([&] {
    std::vector<PortRow> rows;
    EXPECT_TRUE(ReadOf(ReadTcpTable, rows));
    std::set<std::uint16_t> ports;
    for (const PortRow& row : rows) {
      if (row.state == kTcpStateListen) ports.insert(row.local_port);
    }
    return std::all_of(sockets.begin(), sockets.end(),
                       [&](const LoopbackSocket& socket) { return ports.count(socket.port()) == 1; });
  }));
}

// ---------------------------------------------------------------------------------------- The user

TEST(OsLoopbackPeer, IsTheSameUsersForAConnectionOfOurs) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket far = listening.Accepted();
  EXPECT_TRUE(IsLoopbackServerSameUser(near.port(), far.port()));
  if (!TellsOwners()) GTEST_SKIP() << kNoOwners;
  EXPECT_TRUE(IsLoopbackPeerSameUser(far.port(), near.port()));
  EXPECT_TRUE(IsLoopbackPeerSameUser(near.port(), far.port()));
}

TEST(OsLoopbackPeer, IsNobodysWithoutAConnection) {
  LoopbackSocket listening = LoopbackSocket::Listening();
  LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  LoopbackSocket far = listening.Accepted();
  EXPECT_FALSE(IsLoopbackPeerSameUser(far.port(), far.port()));
  EXPECT_FALSE(IsLoopbackPeerSameUser(0, listening.port())) << "one that listens has no other end";
  const std::uint16_t local = far.port();
  const std::uint16_t remote = near.port();
  near.Close();
  far.Close();
  EXPECT_FALSE(IsLoopbackPeerSameUser(local, remote)) << "what is left of one is nobody's";
  EXPECT_FALSE(IsLoopbackServerSameUser(remote, local));
}

}  // namespace
}  // namespace os
