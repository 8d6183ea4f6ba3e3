// Where reusing an address means to share a port with whoever asks for it, and where what is accepted would
// be inherited.

#include <gtest/gtest.h>

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include "ServerEnd.h"
#include "ServerPort.h"
#include "Socket.h"

namespace tolm::test {
namespace {

TEST(NetStart, NobodyCanShareThePortOfAServer) {
  const ServerEnd server;
  for (const u_long ip : {u_long{INADDR_LOOPBACK}, u_long{INADDR_ANY}}) {
    const SOCKET thief = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_NE(thief, INVALID_SOCKET);
    const int on = 1;
    ASSERT_EQ(::setsockopt(thief, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof on),
              0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = ::htons(server.port());
    name.sin_addr.s_addr = ::htonl(ip);
    const bool listens =
        ::bind(thief, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 && ::listen(thief, 1) == 0;
    EXPECT_FALSE(listens) << ip;
    ::closesocket(thief);
  }
}

TEST(NetSockets, AreNotInherited) {
  const std::uint16_t port = ServerPort();
  std::string error;
  const Tolm::Net::Socket listener = Tolm::Net::Listen({INADDR_LOOPBACK, port}, error);
  ASSERT_NE(listener, Tolm::Net::kNoSocket) << error;
  const RawClient client(port);
  Tolm::Net::Accepted accepted;
  ASSERT_TRUE(WaitFor([&] {
    return Tolm::Net::Accept(listener, accepted, error) == Tolm::Net::AcceptResult::kAccepted;
  })) << error;
  for (const Tolm::Net::Socket socket : {listener, accepted.socket}) {
    DWORD flags = 0;
    EXPECT_TRUE(::GetHandleInformation(reinterpret_cast<HANDLE>(socket), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
    Tolm::Net::Close(socket);
  }
}

}  // namespace
}  // namespace tolm::test
