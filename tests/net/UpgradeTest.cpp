// Who gets in.

#include <gtest/gtest.h>

#include <algorithm>
#include <list>

#include "ServerEnd.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;

std::string AnswerTo(std::uint16_t port, const std::string& request) {
  RawClient client(port);
  client.Send(request);
  return client.ReadHead();
}

TEST(NetUpgrade, IsGrantedAsTheProtocolWants) {
  ServerEnd server;
  EXPECT_EQ(AnswerTo(server.port(), UpgradeRequestBytes()),
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

class NetHosts : public testing::TestWithParam<std::pair<const char*, bool>> {};
TEST_P(NetHosts, OnlyLoopbackOnesAreTakenIn) {
  ServerEnd server;
  const auto [host, welcome] = GetParam();
  const std::string line = std::string("Host: ") + host;
  RawClient client(server.port());
  client.Send(UpgradeRequestBytes({line}));
  EXPECT_TRUE(client.ReadHead().starts_with(welcome ? "HTTP/1.1 101 " : "HTTP/1.1 403 "));
  if (welcome) return;
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_EQ(Story(server.Events()), "");
}
INSTANTIATE_TEST_SUITE_P(
    Matrix, NetHosts,
    testing::Values(std::pair{"127.0.0.1", true}, std::pair{"127.0.0.1:8080", true},
                    std::pair{"localhost", true}, std::pair{"LocalHost:1", true}, std::pair{"[::1]", true},
                    std::pair{"[::1]:65535", true}, std::pair{"example.org", false},
                    std::pair{"127.0.0.1.example.org", false}, std::pair{"localhost.example.org", false},
                    std::pair{"127.0.0.2", false}, std::pair{"::1", false}, std::pair{"localhost:", false},
                    std::pair{"localhost:80x", false}, std::pair{"localhost:123456", false},
                    std::pair{"user@localhost", false}, std::pair{"0.0.0.0", false}));

TEST(NetUpgrade, WithoutAHostIsForbidden) {
  ServerEnd server;
  EXPECT_TRUE(AnswerTo(server.port(), UpgradeRequestBytes({"Host:"})).starts_with("HTTP/1.1 403 "));
}

TEST(NetUpgrade, WithTwoHostsIsForbidden) {
  ServerEnd server;
  EXPECT_TRUE(AnswerTo(server.port(), UpgradeRequestBytes({"HOST: 127.0.0.1"})).starts_with("HTTP/1.1 403 "));
}

class NetOrigins : public testing::TestWithParam<const char*> {};
TEST_P(NetOrigins, AreForbidden) {
  ServerEnd server;
  EXPECT_TRUE(AnswerTo(server.port(), UpgradeRequestBytes({GetParam()})).starts_with("HTTP/1.1 403 "));
  const auto lines = server.log().LinesOf("Refuse");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].tag, "TolmNet");
  EXPECT_NE(lines[0].text.find("Origin"), std::string::npos) << lines[0].text;
}
INSTANTIATE_TEST_SUITE_P(Any, NetOrigins,
                         testing::Values("Origin: http://example.org", "Origin: http://127.0.0.1",
                                         "origin: null", "Origin: "));

TEST(NetUpgrade, OfAnotherUserIsForbidden) {
  ServerOptions options;
  std::uint16_t local = 0;
  std::uint16_t remote = 0;
  options.is_peer_same_user = [&](std::uint16_t local_port, std::uint16_t remote_port) {
    local = local_port;
    remote = remote_port;
    return false;
  };
  ServerEnd server(options);
  EXPECT_TRUE(AnswerTo(server.port(), UpgradeRequestBytes()).starts_with("HTTP/1.1 403 "));
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_EQ(local, server.port());
  EXPECT_NE(remote, 0);
  EXPECT_NE(remote, server.port());
}

TEST(NetUpgrade, WithAnotherVersionLearnsOurs) {
  ServerEnd server;
  for (const char* line : {"Sec-WebSocket-Version: 8", "Sec-WebSocket-Version:"}) {
    const auto answer = AnswerTo(server.port(), UpgradeRequestBytes({line}));
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 426 ")) << answer;
    EXPECT_NE(answer.find("\r\nSec-WebSocket-Version: 13\r\n"), std::string::npos);
  }
}

class NetBadRequests : public testing::TestWithParam<std::string> {};
TEST_P(NetBadRequests, AreAnsweredWith400AndClosed) {
  ServerEnd server;
  RawClient client(server.port());
  client.Send(GetParam());
  EXPECT_TRUE(client.ReadHead().starts_with("HTTP/1.1 400 "));
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_EQ(Story(server.Events()), "");
}
INSTANTIATE_TEST_SUITE_P(
    Kinds, NetBadRequests,
    testing::Values(UpgradeRequestBytes({"Sec-WebSocket-Key:"}),
                    UpgradeRequestBytes({"Sec-WebSocket-Key: short"}),
                    UpgradeRequestBytes({"sec-websocket-key: dGhlIHNhbXBsZSBub25jZQ=="}),
                    UpgradeRequestBytes({"Connection: keep-alive"}), UpgradeRequestBytes({"Connection:"}),
                    UpgradeRequestBytes({}, "POST / HTTP/1.1"), UpgradeRequestBytes({}, "GET / HTTP/1.0"),
                    UpgradeRequestBytes({}, "GET / HTTP/2.0"), UpgradeRequestBytes({}, "GET /"),
                    UpgradeRequestBytes({" folded: x"}), UpgradeRequestBytes({"Bad Name: x"}),
                    std::string("\x16\x03\x01\r\n\r\n"), std::string("\r\n\r\n\r\n\r\n")));

TEST(NetUpgrade, AsBrowsersAndOtherClientsWriteIt) {
  ServerEnd server;
  const auto answer =
      AnswerTo(server.port(),
               UpgradeRequestBytes({"Upgrade: WebSocket", "Connection: keep-alive, UPGRADE",
                                    "Sec-WebSocket-Protocol: chat, superchat",
                                    "Sec-WebSocket-Extensions: permessage-deflate; client_max_window_bits"}));
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 101 "));
  EXPECT_EQ(answer.find("Sec-WebSocket-Protocol"), std::string::npos);
  EXPECT_EQ(answer.find("Sec-WebSocket-Extensions"), std::string::npos);
}

TEST(NetUpgrade, RequestThatDoesNotEndIsRefused) {
  ServerEnd server;
  RawClient client(server.port());
  client.Send("GET / HTTP/1.1\r\nX: " + std::string(20000, 'x'));
  EXPECT_TRUE(client.ReadHead().starts_with("HTTP/1.1 431 "));
  EXPECT_TRUE(client.ReadToEnd());
}

TEST(NetPlainHttp, IsAnsweredWith404ClosedAndReported) {
  ServerEnd server;
  RawClient client(server.port());
  client.Send("POST /some/path?x=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 4\r\n\r\nbody");
  EXPECT_TRUE(client.ReadHead().starts_with("HTTP/1.1 404 "));
  EXPECT_TRUE(client.ReadToEnd());
  ASSERT_TRUE(WaitFor([&] { return server.Requests().size() == 1; }));
  EXPECT_NE(server.Requests()[0].find(" POST /some/path?x=1"), std::string::npos);
  EXPECT_EQ(Story(server.Events()), "");
}

TEST(NetPlainHttp, OtherUpgradesArePlain) {
  ServerEnd server;
  EXPECT_TRUE(AnswerTo(server.port(), UpgradeRequestBytes({"Upgrade: h2c"})).starts_with("HTTP/1.1 404 "));
  EXPECT_TRUE(
      AnswerTo(server.port(), "PRI * HTTP/1.1\r\nHost: localhost\r\n\r\n").starts_with("HTTP/1.1 404 "));
}

TEST(NetHalfOpen, TwoHundredDoNotKeepAGuardOut) {
  ServerEnd server;
  std::list<RawClient> half_open;
  const std::string request = UpgradeRequestBytes();
  for (std::size_t i = 0; i < 200; ++i) {
    half_open.emplace_back(server.port());
    ASSERT_TRUE(half_open.back().connected());
    ASSERT_TRUE(half_open.back().Send(std::string_view(request).substr(0, i % 2 * i % request.size())));
  }
  auto guard = RawClient::Upgraded(server.port());
  guard.Send(Text("here"));
  EXPECT_TRUE(server.WaitStory("handshake, text 'here'"));
}

TEST(NetHalfOpen, IsCutOffAfterItsTime) {
  ServerOptions options;
  options.handshake = std::chrono::milliseconds(100);
  ServerEnd server(options);
  RawClient silent(server.port());
  RawClient half(server.port());
  half.Send("GET / HTTP/1.1\r\nHo");
  auto open = RawClient::Upgraded(server.port());
  EXPECT_TRUE(silent.ReadToEnd());
  EXPECT_TRUE(half.ReadToEnd());
  // Who is through is not concerned.
  open.Send(Text("here"));
  EXPECT_TRUE(server.WaitStory("handshake, text 'here'"));
}

}  // namespace
}  // namespace tolm::test
