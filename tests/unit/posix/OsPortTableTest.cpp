// What only this system's tables do: owners of sockets that are handed on, shortages, other users, and the
// lines that they are read from.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ForkedChild.h"
#include "LoopbackSocket.h"
#include "PortRows.h"
#include "SocketDiagnosis.h"
#include "SocketTable.h"
#include "os/PortTable.h"
#include "support/Wait.h"

namespace os {
namespace {

using tolm::test::ForkedChild;
using tolm::test::LoopbackSocket;

TEST(OsPortTable, TellsTheOwnerThatInheritedIt) {
  std::optional<LoopbackSocket> listening = LoopbackSocket::Listening();
  const std::uint16_t port = listening->port();
  ForkedChild child([&](const auto& voice) {
    voice.Say('r');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'r');
  listening.reset();
  const auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(child.id()));
}

TEST(OsPortTable, TellsTheNewOwnerOfASocketThatWasGivenAway) {
  std::optional<LoopbackSocket> listening = LoopbackSocket::Listening();
  const std::uint16_t port = listening->port();
  auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, OwnId());
  ForkedChild child([&](const auto& voice) {
    voice.Say('r');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'r');
  listening.reset();
  const LoopbackSocket other =
      LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);  // where it was lies another one now
  // What was seen a moment ago is told for that moment.
  EXPECT_TRUE(tolm::test::WaitFor([&] {
    row = RowOf(ReadTcpTable, port, 0);
    return row && row->owning_process_id == static_cast<std::uint32_t>(child.id());
  }));
}

TEST(OsPortTable, ASocketWhoseHolderIsNotSeenHasAnUnknownOwner) {
  // Under way between two processes it is held by neither.
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  LoopbackSocket listening = LoopbackSocket::Listening();
  const std::uint16_t port = listening.port();

  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  char content = 'x';
  iovec part{&content, 1};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  const int fd = static_cast<int>(listening.native());
  std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  ASSERT_EQ(::sendmsg(ends[0], &message, 0), 1);
  listening.Close();

  const auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, kUnknownOwner);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(OsPortTable, ATableThatCannotBeReadLeavesTheRowsAlone) {
  ForkedChild child([](const auto&) {
    const rlimit none{0, 0};
    std::vector<PortRow> rows(1);
    if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 1;
    if (ReadTcpTable(rows) || ReadUdpTable(rows) || IsLoopbackPeerSameUser(1, 2)) return 2;
    return rows.size() == 1 ? 0 : 3;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST(OsPortTable, WithoutAWayToLookAtProcessesOwnersAreUnknown) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const std::uint16_t port = listening.port();
  ForkedChild child([&](const auto&) {
    // Room for one more: enough for a table and not for what is below /proc.
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    const auto limit = static_cast<rlim_t>(next) + 1;
    const rlimit one{limit, limit};
    if (::setrlimit(RLIMIT_NOFILE, &one) != 0) return 1;
    const auto row = RowOf(ReadTcpTable, port, 0);
    return row && row->owning_process_id == kUnknownOwner ? 0 : 2;
  });
  EXPECT_EQ(child.Join(), 0);
}

TEST(OsLoopbackPeer, IsAnotherUsersWhenTheirProcessConnected) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const std::uint16_t port = listening.port();
  ForkedChild child([&](const auto& voice) {
    constexpr uid_t kNobody = 65534;
    if (::setresuid(kNobody, kNobody, kNobody) != 0) return 1;
    const LoopbackSocket near = LoopbackSocket::Connected(port);
    voice.Say('c');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'c');
  const LoopbackSocket far = listening.Accepted();
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ASSERT_EQ(::getpeername(static_cast<int>(far.native()), reinterpret_cast<sockaddr*>(&address), &size), 0);
  EXPECT_FALSE(IsLoopbackPeerSameUser(port, ntohs(address.sin_port)));
}

// ----------------------------------------------------------------------------------- The two sources

/// From now on this process is told that there is no such socket.
bool ForbidKernelsSocket() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPROTONOSUPPORT),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(steps), steps};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

TEST(OsPortTable, IsReadAsATextWhereTheKernelDoesNotAnswer) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket far = listening.Accepted();
  ForkedChild child([&](const auto&) {
    std::vector<SocketLine> lines(1);
    if (!ForbidKernelsSocket()) return 1;
    if (AskForTcpSockets(lines) || lines.size() != 1) return 2;
    const auto row = RowOf(ReadTcpTable, listening.port(), 0);
    if (!row || row->state != kTcpStateListen || row->owning_process_id == 0) return 3;
    return IsLoopbackPeerSameUser(far.port(), near.port()) ? 0 : 4;
  });
  EXPECT_EQ(child.Join(), 0);
}

std::vector<SocketLine> LinesOf(const std::vector<SocketLine>& lines, std::uint16_t port,
                                const std::set<std::uint16_t>& others) {
  std::vector<SocketLine> found;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(found), [&](const SocketLine& line) {
    return line.row.local_port == port && line.row.local_address == kLoopback &&
           others.contains(static_cast<std::uint16_t>(line.row.remote_port));
  });
  const auto order = [](const SocketLine& a, const SocketLine& b) {
    return a.row.remote_port < b.row.remote_port;
  };
  std::sort(found.begin(), found.end(), order);
  return found;
}

bool IsSame(const SocketLine& a, const SocketLine& b) {
  return a.row.local_address == b.row.local_address && a.row.local_port == b.row.local_port &&
         a.row.remote_address == b.row.remote_address && a.row.remote_port == b.row.remote_port &&
         a.row.state == b.row.state && a.user == b.user && a.inode == b.inode;
}

/// What both sources say of `port` is the same, and is of as many sockets as wanted. Of those only that go to
/// one of `others`: what is left of connections of other programs may have the same port.
bool AgreeOn(std::uint16_t port, std::size_t wanted, const std::set<std::uint16_t>& others) {
  std::vector<SocketLine> asked;
  if (!AskForTcpSockets(asked)) return false;
  std::ifstream file("/proc/net/tcp");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  std::vector<SocketLine> read;
  if (!ParseTcpTable(text, read)) return false;
  const auto a = LinesOf(asked, port, others);
  const auto b = LinesOf(read, port, others);
  return a.size() == wanted && std::equal(a.begin(), a.end(), b.begin(), b.end(), IsSame);
}

TEST(OsPortTable, TheKernelAnswersWhatTheTextSays) {
  if (std::vector<SocketLine> lines; !AskForTcpSockets(lines)) GTEST_SKIP() << "this kernel does not answer";
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket near = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket far = listening.Accepted();
  const LoopbackSocket waiting = LoopbackSocket::Connected(listening.port());  // not accepted
  LoopbackSocket first = LoopbackSocket::Connected(listening.port());
  const LoopbackSocket bound = LoopbackSocket::Bound(LoopbackSocket::Kind::kTcp);
  const std::uint16_t closed = first.port();
  first.Close();
  const std::set<std::uint16_t> own{0, listening.port(), near.port(), waiting.port(), closed};
  // Tables are told in pieces, between which other programs' sockets come and go.
  const auto agree = [&](std::uint16_t port, std::size_t wanted) {
    return tolm::test::WaitFor([&] { return AgreeOn(port, wanted, own); });
  };
  EXPECT_TRUE(agree(listening.port(), 4));
  EXPECT_TRUE(agree(near.port(), 1));
  EXPECT_TRUE(agree(waiting.port(), 1));
  EXPECT_TRUE(agree(closed, 1));
  EXPECT_TRUE(agree(bound.port(), 0)) << "bound, and nothing else";
}

// ------------------------------------------------------------------------------------------ Owners

TEST(OsPortTable, WhetherThereIsAnOwnerIsToldWithoutLookingForOne) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  const LoopbackSocket bound = LoopbackSocket::Bound(LoopbackSocket::Kind::kUdp);
  const auto tcp = RowOf([](std::vector<PortRow>& rows) { return ReadTcpTable(rows, Owners::kWhetherAny); },
                         listening.port(), 0);
  const auto udp = RowOf([](std::vector<PortRow>& rows) { return ReadUdpTable(rows, Owners::kWhetherAny); },
                         bound.port(), 0);
  ASSERT_TRUE(tcp);
  ASSERT_TRUE(udp);
  EXPECT_EQ(tcp->owning_process_id, kUnknownOwner);
  EXPECT_EQ(udp->owning_process_id, kUnknownOwner);
}

// --------------------------------------------------------------------------------------- The lines

const std::string kHeading =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

std::string Line(const std::string& local, const std::string& remote, const std::string& state,
                 const std::string& user = "1000", const std::string& inode = "4711") {
  return "   0: " + local + " " + remote + " " + state + " 00000000:00000000 00:00000000 00000000 " + user +
         "        0 " + inode + " 1 0000000000000000 100 0 0 10 0\n";
}

TEST(OsSocketTable, AnIdleSystemHasNoLines) {
  std::vector<SocketLine> lines;
  EXPECT_TRUE(ParseTcpTable(kHeading, lines));
  EXPECT_TRUE(ParseUdpTable(kHeading, lines));
  EXPECT_TRUE(lines.empty());
}

TEST(OsSocketTable, ReadsWhatALineSays) {
  std::vector<SocketLine> lines;
  ASSERT_TRUE(ParseTcpTable(kHeading + Line("0100007F:1F90", "0200007F:FFFF", "01"), lines));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].row.local_address, 0x0100007Fu);
  EXPECT_EQ(lines[0].row.local_port, 8080u);
  EXPECT_EQ(lines[0].row.remote_address, 0x0200007Fu);
  EXPECT_EQ(lines[0].row.remote_port, 65535u);
  EXPECT_EQ(lines[0].row.state, kEstablished);
  EXPECT_EQ(lines[0].user, 1000u);
  EXPECT_EQ(lines[0].inode, 4711u);
}

TEST(OsSocketTable, InodesAndUsersMayBeLarge) {
  std::vector<SocketLine> lines;
  ASSERT_TRUE(ParseTcpTable(
      kHeading + Line("00000000:0000", "00000000:0000", "0A", "4294967295", "18446744073709551615"), lines));
  EXPECT_EQ(lines[0].user, 4294967295u);
  EXPECT_EQ(lines[0].inode, 18446744073709551615u);
}

TEST(OsSocketTable, StatesAreNumberedAsOnEverySystem) {
  const std::vector<std::pair<std::string, std::uint32_t>> states = {
      {"01", 5},  {"02", 3}, {"03", 4}, {"04", 6}, {"05", 7}, {"06", 11}, {"07", 1}, {"08", 8},
      {"09", 10}, {"0A", 2}, {"0B", 9}, {"0C", 4}, {"0D", 1}, {"0E", 0},  {"FF", 0}};
  for (const auto& [state, number] : states) {
    std::vector<SocketLine> lines;
    ASSERT_TRUE(ParseTcpTable(kHeading + Line("00000000:0001", "00000000:0000", state), lines)) << state;
    EXPECT_EQ(lines[0].row.state, number) << state;
  }
}

TEST(OsSocketTable, UdpHasNeitherStateNorRemoteEnd) {
  std::vector<SocketLine> lines;
  ASSERT_TRUE(ParseUdpTable(kHeading + Line("0100007F:0035", "0100007F:0036", "01"), lines));
  EXPECT_EQ(lines[0].row.local_port, 53u);
  EXPECT_EQ(lines[0].row.remote_address, 0u);
  EXPECT_EQ(lines[0].row.remote_port, 0u);
  EXPECT_EQ(lines[0].row.state, 0u);
}

TEST(OsSocketTable, OneUnreadableLineSpoilsTheTable) {
  const std::string good = Line("0100007F:0001", "00000000:0000", "0A");
  for (const std::string& bad :
       {std::string("\n"), std::string("nonsense\n"), Line("0100007F", "00000000:0000", "0A"),
        Line("0100007F:", "00000000:0000", "0A"), Line(":0001", "00000000:0000", "0A"),
        Line("0100007F:10000", "00000000:0000", "0A"), Line("10100007F:0001", "00000000:0000", "0A"),
        Line("0100007F:0001", "0000000G:0000", "0A"), Line("0100007F:0001", "00000000:0000", "0G"),
        Line("0100007F:0001", "00000000:0000", "0A", "4294967296"),
        Line("0100007F:0001", "00000000:0000", "0A", "-1"),
        Line("0100007F:0001", "00000000:0000", "0A", "0", "1x"),
        std::string("   0: 0100007F:0001 00000000:0000 0A 0:0 0:0 0 0 0\n"),
        good.substr(0, good.size() - 1)}) {
    std::vector<SocketLine> lines(3);
    EXPECT_FALSE(ParseTcpTable(kHeading + good + bad, lines)) << bad;
    EXPECT_FALSE(ParseUdpTable(kHeading + good + bad, lines)) << bad;
    EXPECT_EQ(lines.size(), 3u) << bad;
  }
  std::vector<SocketLine> lines;
  EXPECT_FALSE(ParseTcpTable("", lines)) << "even the heading is missing";
}

}  // namespace
}  // namespace os
