// Starting and stopping, and what a host notices of it.

#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <thread>

#include "ConnectionTable.h"
#include "ServerEnd.h"
#include "ServerPort.h"
#include "Socket.h"
#include "support/OwnResources.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void IgnoreRequest(std::int32_t, const HttpServerRecv&) {}

TEST(NetStart, OnAPortOfAnotherServerFails) {
  ServerEnd server;
  std::int32_t handle = -1;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", server.port(), IgnoreRequest),
            kNetCannotListen);
  EXPECT_EQ(handle, -1);
  const auto lines = server.log().LinesOf("MakeLoop");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 5);
  EXPECT_NE(lines[0].text.find(kPortIsTaken), std::string::npos) << lines[0].text;
  auto client = RawClient::Upgraded(server.port());
  EXPECT_GT(server.WaitSocket(), 0);
}

TEST(NetStart, OnAPortThatAnybodyListensOnFails) {
  const LogCapture log;
  std::string error;
  // On all addresses, as servers are.
  const std::uint16_t port = ServerPort();
  const Socket listener = Listen({0, port}, error);
  ASSERT_NE(listener, kNoSocket) << error;
  std::int32_t handle = -1;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", port, IgnoreRequest), kNetCannotListen);
  Close(listener);
}

TEST(NetStart, OnThePortOfAServerThatStoppedWorksAtOnce) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  EXPECT_EQ(server.Stop(), 0);
  std::int32_t handle = -1;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", server.port(), IgnoreRequest), kNetOk);
  EXPECT_GT(handle, server.handle());
  EXPECT_EQ(CHttpServer::StopServer(handle), kNetOk);
}

TEST(NetStart, WithBadArgumentsFails) {
  const LogCapture log;
  std::int32_t handle = 77;
  for (const char* ip : {"", "localhost", "127.0.0", "::1", "127.0.0.1 "}) {
    EXPECT_EQ(CHttpServer::StartHttpServer(handle, ip, ServerPort(), IgnoreRequest), kNetBadArgument) << ip;
  }
  EXPECT_EQ(
      CHttpServer::StartHttpServer(handle, std::string("127.0.0.1\0x", 11), ServerPort(), IgnoreRequest),
      kNetBadArgument);
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", ServerPort(), nullptr), kNetBadArgument);
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", 0, IgnoreRequest), kNetBadArgument);
  // Somebody else's address (TEST-NET-1).
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "192.0.2.1", ServerPort(), IgnoreRequest), kNetCannotListen);
  EXPECT_EQ(handle, 77);
}

TEST(NetStop, LeavesNeitherThreadNorDescriptor) {
  { const ServerEnd warm_up; }
  const long threads = RunningThreads();
  const long descriptors = OpenDescriptors();
  ASSERT_GT(descriptors, 0);
  for (int i = 0; i < 5; ++i) {
    ServerEnd server;
    auto client = RawClient::Upgraded(server.port());
    RawClient half_open(server.port());
    ASSERT_GT(server.WaitSocket(), 0);
    EXPECT_EQ(server.Stop(), 0);
    client.Close();
    half_open.Close();
    EXPECT_EQ(RunningThreads(), threads);
    EXPECT_EQ(OpenDescriptors(), descriptors);
  }
  EXPECT_EQ(ConnectionTable::Instance().size(), 0U);
}

TEST(NetStop, ClosesWhoeverIsConnectedWithinASecondWithoutEvents) {
  ServerEnd server;
  auto open = RawClient::Upgraded(server.port());
  auto full = RawClient::Upgraded(server.port(), 4096);
  const auto socket = server.WaitSocket(2);
  const std::string text(32U << 20, 'f');
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, text.data(),
                                            static_cast<std::uint32_t>(text.size()), true),
              kNetOk);
  }
  auto closing = RawClient::Upgraded(server.port());
  EXPECT_EQ(CHttpServer::CloseWebSocket(server.WaitSocket(3)), kNetOk);
  ASSERT_EQ(closing.ReadFrame()->opcode, 8);
  std::list<RawClient> half_open;
  for (int i = 0; i < 50; ++i) half_open.emplace_back(server.port());
  const auto begin = Clock::now();
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_LT(Clock::now() - begin, milliseconds(1000));
  EXPECT_EQ(Story(server.Events()), "handshake, handshake, handshake");
  // A client that is open is told why.
  EXPECT_EQ(open.ReadFrame()->close_code(), 1001);
  for (RawClient* client : {&open, &full, &closing, &half_open.back()}) EXPECT_TRUE(client->ReadToEnd());
  EXPECT_FALSE(RawClient(server.port()).connected());
}

TEST(NetStop, SendsWhatTheSystemTakesBefore) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "farewell", 8, true), kNetOk);
  EXPECT_EQ(server.Stop(), 0);
  EXPECT_EQ(client.ReadFrame()->payload, "farewell");
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "x", 1, true), kNetNoSuchHandle);
}

TEST(NetStop, OfOneServerLeavesTheOthersAlone) {
  ServerEnd stays;
  auto client = RawClient::Upgraded(stays.port());
  const auto socket = stays.WaitSocket();
  std::int32_t handle = -1;
  int result = -1;
  for (int attempt = 0; attempt < 20 && result != kNetOk; ++attempt) {
    result = CHttpServer::StartHttpServer(handle, "127.0.0.1", ServerPort(), IgnoreRequest);
  }
  ASSERT_EQ(result, kNetOk);
  EXPECT_NE(handle, stays.handle());
  EXPECT_EQ(CHttpServer::StopServer(handle), kNetOk);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "on", 2, true), kNetOk);
  EXPECT_EQ(client.ReadFrame()->payload, "on");
}

TEST(NetStop, ASecondTimeIsNoSuchHandle) {
  ServerEnd server;
  EXPECT_EQ(server.Stop(), kNetOk);
  EXPECT_EQ(server.Stop(), kNetNoSuchHandle);
  EXPECT_EQ(CHttpServer::StopServer(-1), kNetNoSuchHandle);
  EXPECT_EQ(CHttpServer::StopServer(0), kNetNoSuchHandle);
  EXPECT_EQ(CHttpServer::SetWebSocketServerCallBack(server.handle(), [](auto, const auto&) {}),
            kNetNoSuchHandle);
}

TEST(NetStop, OnManyThreadsIsDoneOnce) {
  ServerEnd server;
  std::atomic<int> done{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const int result = server.Stop();
      done += result == kNetOk ? 1 : 0;
      refused += result == kNetNoSuchHandle ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(done, 1);
  EXPECT_EQ(refused, 7);
}

TEST(NetStop, WithinACallbackReturnsAtOnceAndTheRestFollows) {
  { const ServerEnd warm_up; }
  const long threads = RunningThreads();
  ServerEnd server;
  std::atomic<int> result{-1};
  server.OnEvent([&](const SeenEvent& event) {
    if (event.data == "stop") result = server.Stop();
  });
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("stop") + Text("not any more") + CloseBytes(1000));
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_EQ(result, kNetOk);
  EXPECT_TRUE(WaitFor([&] { return RunningThreads() == threads; }));
  EXPECT_EQ(Story(server.Events()), "handshake, text 'stop'");
}

TEST(NetStop, WaitsForTheCallbackThatRuns) {
  ServerEnd server;
  std::atomic<bool> inside{false};
  std::atomic<bool> stopping{false};
  std::atomic<bool> left{false};
  server.OnEvent([&](const SeenEvent& event) {
    if (event.type != kWebsocketHandshake) return;
    inside = true;
    WaitFor([&] { return stopping.load(); });
    left = true;
  });
  auto client = RawClient::Upgraded(server.port());
  ASSERT_TRUE(WaitFor([&] { return inside.load(); }));
  std::thread releaser([&] { stopping = true; });
  EXPECT_EQ(server.Stop(), kNetOk);
  EXPECT_TRUE(left);
  releaser.join();
}

TEST(NetStop, UnderLoadCallsNothingBackAfterwards) {
  ServerOptions options;
  // Asking the system takes longer than all the rest of a connection does here.
  options.is_peer_same_user = [](std::uint16_t, std::uint16_t) { return true; };
  for (int round = 0; round < 4; ++round) {
    ServerEnd server(options);
    std::atomic<bool> stopped{false};
    std::atomic<int> late{0};
    std::atomic<bool> over{false};
    server.OnEvent([&](const SeenEvent& event) {
      late += stopped ? 1 : 0;
      CHttpServer::SendWebSocketMsg(event.socket, kWebsocketText, event.data.data(),
                                    static_cast<std::uint32_t>(event.data.size()), true);
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        while (!over) {
          auto client = RawClient::Upgraded(server.port());
          for (int i = 0; i < 20 && client.Send(Text(std::string(500, 'x'))); ++i) {
          }
          if (t % 2 == 0) client.Reset();
        }
      });
      threads.emplace_back([&] {
        while (!over) {
          for (const auto& event : server.Events()) {
            CHttpServer::SendWebSocketMsg(event.socket, kWebsocketBinary, "abc", 3, true);
            if (over) break;
          }
        }
      });
    }
    EXPECT_TRUE(server.WaitCount(kWebsocketText, 100));
    EXPECT_EQ(server.Stop(), kNetOk);
    stopped = true;
    const std::size_t count = server.Events().size();
    over = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(server.Events().size(), count);
    EXPECT_EQ(late, 0);
  }
}

}  // namespace
}  // namespace tolm::test
