// The system's tables of sockets: their lines, and what they tell of sockets that the tests make.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ForkedChild.h"
#include "SocketTable.h"
#include "os/PortTable.h"
#include "support/Wait.h"

namespace os {
namespace {

using tolm::test::ForkedChild;

constexpr std::uint32_t kEstablished = 5;
constexpr std::uint32_t kTimeWait = 11;

const std::uint32_t kLoopback = htonl(INADDR_LOOPBACK);

class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&&) = delete;
  ~Socket() { Close(); }

  int fd() const { return fd_; }
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  std::uint16_t port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    return ntohs(address.sin_port);
  }

 private:
  int fd_;
};

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

Socket Bound(int type) {
  Socket made(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(0);
  EXPECT_EQ(::bind(made.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return made;
}

Socket Listening() {
  Socket made = Bound(SOCK_STREAM);
  EXPECT_EQ(::listen(made.fd(), 5), 0);
  return made;
}

Socket Connected(std::uint16_t port) {
  Socket made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  EXPECT_EQ(::connect(made.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return made;
}

Socket Accepted(const Socket& listening) {
  return Socket(::accept4(listening.fd(), nullptr, nullptr, SOCK_CLOEXEC));
}

using Read = bool (*)(std::vector<PortRow>&);

/// The row of a socket on loopback, if the table shows one.
std::optional<PortRow> Row(Read read, std::uint16_t local_port, std::uint16_t remote_port) {
  std::vector<PortRow> rows;
  EXPECT_TRUE(read(rows));
  for (const PortRow& row : rows) {
    if (row.local_address == kLoopback && row.local_port == local_port && row.remote_port == remote_port) {
      return row;
    }
  }
  return std::nullopt;
}

/// The row of a socket that is there. The system tells a table in pieces, between which other programs'
/// sockets come and go, so that one reading may miss a row, or show it twice.
std::optional<PortRow> RowOf(Read read, std::uint16_t local_port, std::uint16_t remote_port) {
  std::optional<PortRow> row;
  tolm::test::WaitFor([&] { return (row = Row(read, local_port, remote_port)).has_value(); });
  return row;
}

// ------------------------------------------------------------------------------------- The sockets

TEST(OsPortTable, ShowsAListeningSocketAndItsOwner) {
  const Socket listening = Listening();
  const auto row = RowOf(ReadTcpTable, listening.port(), 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->state, kTcpStateListen);
  EXPECT_EQ(row->remote_address, 0u);
  EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(::getpid()));
}

TEST(OsPortTable, ShowsBothEndsOfAConnection) {
  const Socket listening = Listening();
  const Socket near = Connected(listening.port());
  const Socket far = Accepted(listening);
  for (const auto& [local, remote] : {std::pair(&near, &far), std::pair(&far, &near)}) {
    const auto row = RowOf(ReadTcpTable, local->port(), remote->port());
    ASSERT_TRUE(row);
    EXPECT_EQ(row->state, kEstablished);
    EXPECT_EQ(row->remote_address, kLoopback);
    EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(::getpid()));
  }
}

TEST(OsPortTable, ShowsAUdpSocketWithoutStateAndRemoteEnd) {
  const Socket bound = Bound(SOCK_DGRAM);
  const Socket other = Bound(SOCK_DGRAM);
  const sockaddr_in address = Loopback(other.port());
  ASSERT_EQ(::connect(bound.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto row = RowOf(ReadUdpTable, bound.port(), 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->state, 0u);
  EXPECT_EQ(row->remote_address, 0u);
  EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(::getpid()));
  // Somebody else may have the port for TCP.
  const auto tcp = Row(ReadTcpTable, bound.port(), 0);
  EXPECT_TRUE(!tcp || tcp->owning_process_id != row->owning_process_id) << "each table has its own kind";
}

TEST(OsPortTable, TellsTheOwnerInAnotherProcess) {
  std::optional<Socket> listening = Listening();
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
  std::optional<Socket> listening = Listening();
  const std::uint16_t port = listening->port();
  auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, static_cast<std::uint32_t>(::getpid()));
  ForkedChild child([&](const auto& voice) {
    voice.Say('r');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'r');
  listening.reset();
  const Socket other = Bound(SOCK_DGRAM);  // where it was lies another one now
  // What was seen a moment ago is told for that moment.
  EXPECT_TRUE(tolm::test::WaitFor([&] {
    row = RowOf(ReadTcpTable, port, 0);
    return row && row->owning_process_id == static_cast<std::uint32_t>(child.id());
  }));
}

TEST(OsPortTable, ForgetsASocketThatIsClosed) {
  Socket listening = Listening();
  Socket bound = Bound(SOCK_DGRAM);
  const std::uint16_t tcp_port = listening.port();
  const std::uint16_t udp_port = bound.port();
  listening.Close();
  bound.Close();
  // Somebody else may have got the port meanwhile.
  const auto own = static_cast<std::uint32_t>(::getpid());
  const auto tcp = Row(ReadTcpTable, tcp_port, 0);
  const auto udp = Row(ReadUdpTable, udp_port, 0);
  EXPECT_TRUE(!tcp || tcp->owning_process_id != own);
  EXPECT_TRUE(!udp || udp->owning_process_id != own);
}

TEST(OsPortTable, TheRestOfAClosedConnectionHasNoOwner) {
  const Socket listening = Listening();
  Socket near = Connected(listening.port());
  Socket far = Accepted(listening);
  const std::uint16_t local = near.port();
  const std::uint16_t remote = far.port();
  near.Close();  // who closes first keeps the rest
  char nothing = 0;
  ASSERT_EQ(::recv(far.fd(), &nothing, 1, 0), 0);
  far.Close();
  std::optional<PortRow> row;
  ASSERT_TRUE(tolm::test::WaitFor([&] {
    row = Row(ReadTcpTable, local, remote);
    return row && row->state == kTimeWait;
  }));
  EXPECT_EQ(row->owning_process_id, 0u);
}

TEST(OsPortTable, ASocketWhoseHolderIsNotSeenHasAnUnknownOwner) {
  // Under way between two processes it is held by neither.
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Socket near(ends[0]);
  const Socket far(ends[1]);
  Socket listening = Listening();
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
  const int fd = listening.fd();
  std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  ASSERT_EQ(::sendmsg(near.fd(), &message, 0), 1);
  listening.Close();

  const auto row = RowOf(ReadTcpTable, port, 0);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->owning_process_id, kUnknownOwner);
}

TEST(OsPortTable, AppendsToWhatIsThere) {
  const Socket listening = Listening();
  std::vector<PortRow> rows(2);
  rows[1].local_port = 4711;
  ASSERT_TRUE(ReadTcpTable(rows));
  EXPECT_GT(rows.size(), 2u);
  EXPECT_EQ(rows[0].local_port, 0u);
  EXPECT_EQ(rows[1].local_port, 4711u);
}

TEST(OsPortTable, ShowsManySockets) {
  std::vector<Socket> sockets;
  for (int i = 0; i < 200; ++i) sockets.push_back(Listening());
  const auto own = static_cast<std::uint32_t>(::getpid());
  EXPECT_TRUE(tolm::test::WaitFor([&] {
    std::vector<PortRow> rows;
    EXPECT_TRUE(ReadTcpTable(rows));
    std::set<std::uint16_t> ports;
    for (const PortRow& row : rows) {
      if (row.owning_process_id == own) ports.insert(row.local_port);
    }
    return std::all_of(sockets.begin(), sockets.end(),
                       [&](const Socket& socket) { return ports.count(socket.port()) == 1; });
  }));
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
  const Socket listening = Listening();
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

// ---------------------------------------------------------------------------------------- The user

TEST(OsLoopbackPeer, IsTheSameUsersForAConnectionOfOurs) {
  const Socket listening = Listening();
  const Socket near = Connected(listening.port());
  const Socket far = Accepted(listening);
  EXPECT_TRUE(IsLoopbackPeerSameUser(far.port(), near.port()));
  EXPECT_TRUE(IsLoopbackPeerSameUser(near.port(), far.port()));
}

TEST(OsLoopbackPeer, IsNobodysWithoutAConnection) {
  Socket listening = Listening();
  Socket near = Connected(listening.port());
  Socket far = Accepted(listening);
  EXPECT_FALSE(IsLoopbackPeerSameUser(far.port(), far.port()));
  EXPECT_FALSE(IsLoopbackPeerSameUser(0, listening.port())) << "one that listens has no other end";
  const std::uint16_t local = far.port();
  const std::uint16_t remote = near.port();
  near.Close();
  far.Close();
  EXPECT_FALSE(IsLoopbackPeerSameUser(local, remote)) << "what is left of one is nobody's";
}

TEST(OsLoopbackPeer, IsAnotherUsersWhenTheirProcessConnected) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  const Socket listening = Listening();
  const std::uint16_t port = listening.port();
  ForkedChild child([&](const auto& voice) {
    constexpr uid_t kNobody = 65534;
    if (::setresuid(kNobody, kNobody, kNobody) != 0) return 1;
    const Socket near = Connected(port);
    voice.Say('c');
    ::pause();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'c');
  const Socket far = Accepted(listening);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ASSERT_EQ(::getpeername(far.fd(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  EXPECT_FALSE(IsLoopbackPeerSameUser(port, ntohs(address.sin_port)));
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
