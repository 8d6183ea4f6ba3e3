// What a server tells of its connections, and when.

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>

#include "ServerEnd.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;
using std::chrono::milliseconds;

TEST(NetEvents, HandshakeAndCloseCarryNothing) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(CloseBytes(1000));
  ASSERT_TRUE(server.WaitStory("handshake, close"));
  for (const auto& event : server.Events()) {
    EXPECT_TRUE(event.fin);
    EXPECT_EQ(event.status, 0);
    EXPECT_FALSE(event.has_data);
    EXPECT_EQ(event.socket, server.Events()[0].socket);
  }
}

TEST(NetEvents, SocketIdsCountUpAndAreNotReused) {
  ServerEnd server;
  std::int32_t last = 0;
  for (std::size_t i = 1; i <= 5; ++i) {
    auto client = RawClient::Upgraded(server.port());
    const auto socket = server.WaitSocket(i);
    EXPECT_EQ(socket, last == 0 ? socket : last + 1);
    EXPECT_GE(socket, 1);
    last = socket;
  }
  ServerEnd another;
  auto client = RawClient::Upgraded(another.port());
  EXPECT_EQ(another.WaitSocket(), last + 1);
}

TEST(NetEvents, AddressIsKnownWhileTheConnectionIsOpen) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  std::string ip = "?";
  CHttpServer::GetWebSocketClientIp(ip, socket);
  EXPECT_EQ(ip, "127.0.0.1");
  client.Close();
  ASSERT_TRUE(server.WaitCount(kWebsocketClose, 1));
  CHttpServer::GetWebSocketClientIp(ip, socket);
  EXPECT_EQ(ip, "");
}
TEST(NetClosing, PeersCloseFrameIsAnsweredWithItsCode) {
  ServerEnd server;
  for (const int code : {1000, 1001, 3000, 4999}) {
    auto client = RawClient::Upgraded(server.port());
    client.Send(CloseBytes(code, "bye"));
    const auto frame = client.ReadFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->opcode, 8);
    EXPECT_EQ(frame->close_code(), code);
    // The server ends its side first, as it is asked to.
    EXPECT_FALSE(client.ReadFrame());
  }
  EXPECT_TRUE(server.WaitCount(kWebsocketClose, 4));
}

TEST(NetClosing, CloseFrameWithoutCodeIsAnsweredWithoutCode) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(FrameBytes{.opcode = 8}(""));
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->opcode, 8);
  EXPECT_TRUE(frame->payload.empty());
  EXPECT_TRUE(server.WaitStory("handshake, close"));
}

TEST(NetClosing, WhatFollowsTheCloseFrameIsNotHandedOn) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(CloseBytes(1000) + Text("late") + CloseBytes(1000));
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_TRUE(server.WaitStory("handshake, close"));
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_EQ(Story(server.Events()), "handshake, close");
}

TEST(NetClosing, EndWithoutCloseFrameIsOneCloseEvent) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("half", false) + FrameBytes{}.Header(100));
  client.Close();
  EXPECT_TRUE(server.WaitStory("handshake, text- 'half', close"));
}

TEST(NetClosing, ResetIsOneCloseEvent) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Reset();
  EXPECT_TRUE(server.WaitStory("handshake, close"));
}

TEST(NetClosing, OfOursIsOneCloseEventWhenThePeerAnswers) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "last", 4, true), kNetOk);
  EXPECT_EQ(CHttpServer::CloseWebSocket(socket), kNetOk);
  EXPECT_EQ(CHttpServer::CloseWebSocket(socket), kNetOk);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "no", 2, true), kNetNoSuchHandle);
  EXPECT_EQ(client.ReadFrame()->payload, "last");
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->opcode, 8);
  EXPECT_EQ(frame->close_code(), 1000);
  client.Send(CloseBytes(1000));
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_TRUE(server.WaitStory("handshake, close"));
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_EQ(Story(server.Events()), "handshake, close");
}

TEST(NetClosing, OfOursEndsThoughThePeerDoesNotAnswer) {
  ServerOptions options;
  options.close_answer = milliseconds(50);
  ServerEnd server(options);
  auto client = RawClient::Upgraded(server.port());
  EXPECT_EQ(CHttpServer::CloseWebSocket(server.WaitSocket()), kNetOk);
  EXPECT_TRUE(server.WaitStory("handshake, close"));
  EXPECT_TRUE(client.ReadToEnd());
}

TEST(NetClosing, OfAConnectionThatIsClosedAlreadyIsFineAndSilent) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  client.Close();
  ASSERT_TRUE(server.WaitStory("handshake, close"));
  EXPECT_EQ(CHttpServer::CloseWebSocket(socket), kNetOk);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "x", 1, true), kNetNoSuchHandle);
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_EQ(CHttpServer::CloseWebSocket(socket), kNetOk);
  EXPECT_EQ(Story(server.Events()), "handshake, close");
}

TEST(NetClosing, WithinTheCloseEventIsFine) {
  ServerEnd server;
  std::atomic<int> result{-1};
  server.OnEvent([&](const SeenEvent& event) {
    if (event.type == kWebsocketClose) result = CHttpServer::CloseWebSocket(event.socket);
  });
  auto client = RawClient::Upgraded(server.port());
  client.Send(CloseBytes(1000));
  EXPECT_TRUE(WaitFor([&] { return result == kNetOk; }));
}

TEST(NetClosing, OfAnUnknownSocketIsAnError) {
  EXPECT_EQ(CHttpServer::CloseWebSocket(-1), kNetNoSuchHandle);
  EXPECT_EQ(CHttpServer::CloseWebSocket(0), kNetNoSuchHandle);
  EXPECT_EQ(CHttpServer::CloseWebSocket(0x7FFFFFFF), kNetNoSuchHandle);
}

TEST(NetClosing, PeerThatStaysAfterTheAnswerIsCutOff) {
  ServerOptions options;
  options.linger = milliseconds(50);
  ServerEnd server(options);
  auto client = RawClient::Upgraded(server.port());
  client.Send(CloseBytes(1000));
  EXPECT_TRUE(client.ReadToEnd());
  // Its socket is gone, not just finished: what is sent to it comes back as a reset.
  EXPECT_TRUE(WaitFor([&] { return !client.Send("x"); }));
}

TEST(NetKeptEvents, AreDeliveredFirstAndInOrder) {
  ServerEnd server({}, false);
  auto first = RawClient::Upgraded(server.port());
  first.Send(Text("one") + FrameBytes{.opcode = 2, .fin = false}("two") + FrameBytes{.opcode = 9}("seen?"));
  ASSERT_TRUE(first.ReadFrame());
  first.Send(CloseBytes(1000));
  ASSERT_TRUE(first.ReadToEnd());
  EXPECT_EQ(server.TakeEvents(), kNetOk);
  auto second = RawClient::Upgraded(server.port());
  EXPECT_TRUE(server.WaitStory("handshake, text 'one', binary- 'two', close, handshake"))
      << Story(server.Events());
}

TEST(NetKeptEvents, AreBoundedByNotReadingAndNothingIsLost) {
  ServerOptions options;
  options.max_kept_events = 8;
  ServerEnd server(options, false);
  auto client = RawClient::Upgraded(server.port());
  constexpr std::size_t kCount = 200;
  // Far more than fits into one read: the rest stays on the way.
  const std::string payload(32 * 1024, 'k');
  std::thread sender([&] {
    for (std::size_t i = 0; i < kCount; ++i) client.Send(Text(payload));
  });
  RawClient second(server.port());
  second.Send(UpgradeRequestBytes());
  EXPECT_EQ(server.TakeEvents(), kNetOk);
  EXPECT_TRUE(server.WaitCount(kWebsocketText, kCount));
  sender.join();
  EXPECT_TRUE(second.ReadHead().starts_with("HTTP/1.1 101 "));
  EXPECT_EQ(server.CountOf(kWebsocketText), kCount);
}

TEST(NetKeptEvents, FullMeansThatNobodyIsReadOrAccepted) {
  ServerOptions options;
  options.max_kept_events = 4;
  options.handshake = milliseconds(60000);
  ServerEnd server(options, false);
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("1") + Text("2") + Text("3") + FrameBytes{.opcode = 9}("read"));
  ASSERT_EQ(client.ReadFrame()->payload, "read");
  client.Send(FrameBytes{.opcode = 9}("not read"));
  RawClient late(server.port());
  late.Send(UpgradeRequestBytes());
  EXPECT_FALSE(WaitFor([&] { return client.HasInput() || late.HasInput(); }, milliseconds(200)));
  EXPECT_EQ(server.TakeEvents(), kNetOk);
  EXPECT_EQ(client.ReadFrame()->payload, "not read");
  EXPECT_TRUE(late.ReadHead().starts_with("HTTP/1.1 101 "));
  EXPECT_TRUE(server.WaitStory("handshake, text '1', text '2', text '3', handshake"));
}

TEST(NetCallback, ThatThrowsIsLoggedAndHarmsNothing) {
  ServerEnd server;
  server.OnEvent([](const SeenEvent& event) {
    if (event.data == "throw") throw std::runtime_error("from the callback");
    if (event.data == "throw a number") throw 7;
  });
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("throw") + Text("throw a number") + Text("on"));
  EXPECT_TRUE(server.WaitCount(kWebsocketText, 3));
  EXPECT_EQ(server.Events().back().data, "on");
  const auto lines = server.log().LinesOf("Call");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].level, 5);
  EXPECT_NE(lines[0].text.find("from the callback"), std::string::npos);
}

TEST(NetCallback, MaySendAndReplaceItself) {
  ServerEnd server;
  std::atomic<int> by_second{0};
  server.OnEvent([&](const SeenEvent& event) {
    if (event.type != kWebsocketHandshake) return;
    EXPECT_EQ(CHttpServer::SendWebSocketMsg(event.socket, kWebsocketText, "hello", 5, true), kNetOk);
    EXPECT_EQ(CHttpServer::SetWebSocketServerCallBack(
                  server.handle(), [&](std::int32_t, const WebsocketRecv&) { ++by_second; }),
              kNetOk);
  });
  auto client = RawClient::Upgraded(server.port());
  EXPECT_EQ(client.ReadFrame()->payload, "hello");
  client.Send(Text("x"));
  EXPECT_TRUE(WaitFor([&] { return by_second == 1; }));
  EXPECT_EQ(server.Stop(), 0);
}

TEST(NetShortage, OfMemoryCostsOnlyTheConnectionThatWantsIt) {
  ServerOptions options;
  std::atomic<int> asked{0};
  options.is_peer_same_user = [&](std::uint16_t, std::uint16_t) -> bool {
    if (++asked == 2) throw std::bad_alloc();
    return true;
  };
  ServerEnd server(options);
  auto before = RawClient::Upgraded(server.port());
  RawClient unlucky(server.port());
  unlucky.Send(UpgradeRequestBytes());
  EXPECT_TRUE(unlucky.ReadToEnd());
  before.Send(Text("before"));
  auto after = RawClient::Upgraded(server.port());
  EXPECT_TRUE(after.connected());
  EXPECT_TRUE(server.WaitStory("handshake, text 'before', handshake")) << Story(server.Events());
  EXPECT_EQ(server.log().LinesOf("Guarded").size(), 1U);
}

TEST(NetArguments, AreChecked) {
  ServerEnd server;
  EXPECT_EQ(CHttpServer::SetWebSocketServerCallBack(server.handle(), nullptr), kNetBadArgument);
  EXPECT_EQ(CHttpServer::SetWebSocketServerCallBack(-1, [](std::int32_t, const WebsocketRecv&) {}),
            kNetNoSuchHandle);
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  for (const auto type : {kWebsocketNoType, kWebsocketClose, kWebsocketHandshake}) {
    EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, type, "x", 1, true), kNetBadArgument);
  }
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, nullptr, 1, true), kNetBadArgument);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(-1, kWebsocketText, "x", 1, true), kNetNoSuchHandle);
}

TEST(NetArguments, ATextThatIsNotUtf8IsNotSentAndTheConnectionStays) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  for (const std::string text : {"\xff", "a\xc3", "\xed\xa0\x80"}) {
    const auto size = static_cast<std::uint32_t>(text.size());
    EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, text.data(), size, true),
              kNetBadArgument);
    EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketBinary, text.data(), size, true), kNetOk);
    EXPECT_EQ(client.ReadFrame()->payload, text);
  }
}

}  // namespace
}  // namespace tolm::test
