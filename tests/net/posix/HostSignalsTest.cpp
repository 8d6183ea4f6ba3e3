// What a host does about signals stays what it was.

#include <gtest/gtest.h>

#include <csignal>

#include "ServerEnd.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;

TEST(NetStart, LeavesTheHostsSignalsAlone) {
  struct sigaction before {};
  struct sigaction own {};
  own.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGPIPE, &own, &before), 0);
  {
    ServerEnd server;
    auto client = RawClient::Upgraded(server.port());
    // Sending into a connection that is gone raises none.
    const auto socket = server.WaitSocket();
    client.Reset();
    CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "x", 1, true);
    EXPECT_TRUE(server.WaitCount(kWebsocketClose, 1));
    struct sigaction now {};
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, own.sa_handler);
  }
  ::sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
}  // namespace tolm::test
