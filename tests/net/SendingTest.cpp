// What a server sends, and to whom it does not go on sending.

#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "Outbox.h"
#include "ServerEnd.h"
#include "support/OwnResources.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;
using std::chrono::milliseconds;

int SendText(std::int32_t socket, const std::string& text) {
  return CHttpServer::SendWebSocketMsg(socket, kWebsocketText, text.data(),
                                       static_cast<std::uint32_t>(text.size()), true);
}

TEST(NetSending, FragmentsGoAsTheyAreGiven) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketText, "a", 1, false), kNetOk);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(socket, kWebsocketContinuation, nullptr, 0, true), kNetOk);
  auto frame = client.ReadFrame();
  EXPECT_EQ(frame->opcode, 1);
  EXPECT_FALSE(frame->fin);
  frame = client.ReadFrame();
  EXPECT_EQ(frame->opcode, 0);
  EXPECT_TRUE(frame->fin);
  EXPECT_EQ(frame->payload, "");
}

TEST(NetSending, DataMayBeReusedAtOnce) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  std::string text(100000, 'a');
  EXPECT_EQ(SendText(server.WaitSocket(), text), kNetOk);
  text.assign(text.size(), 'b');
  EXPECT_EQ(client.ReadFrame()->payload, std::string(100000, 'a'));
}

TEST(NetSending, FromManyThreadsKeepsFramesWholeAndEachThreadsOrder) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  constexpr int kThreads = 6;
  constexpr int kEach = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, socket] {
      for (int i = 0; i < kEach; ++i) {
        const std::string tail(static_cast<std::size_t>(i % 7 * 3000), static_cast<char>('a' + t));
        EXPECT_EQ(SendText(socket, std::to_string(t) + ":" + std::to_string(i) + ":" + tail), kNetOk);
      }
    });
  }
  std::map<int, int> next;
  for (int n = 0; n < kThreads * kEach; ++n) {
    const auto frame = client.ReadFrame();
    ASSERT_TRUE(frame);
    const int t = frame->payload[0] - '0';
    const int i = next[t]++;
    const std::string tail(static_cast<std::size_t>(i % 7 * 3000), static_cast<char>('a' + t));
    ASSERT_EQ(frame->payload, std::to_string(t) + ":" + std::to_string(i) + ":" + tail);
  }
  for (auto& thread : threads) thread.join();
}

TEST(NetSending, LargeFrameGoesInOnePieceWithoutAPongInside) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  constexpr std::size_t kSize = 62914560;
  EXPECT_EQ(SendText(socket, std::string(kSize, 'L')), kNetOk);
  client.Send(FrameBytes{.opcode = 9}("p"));
  EXPECT_EQ(SendText(socket, "behind"), kNetOk);
  std::vector<SeenFrame> texts;
  int pongs = 0;
  for (int i = 0; i < 3; ++i) {
    auto frame = client.ReadFrame();
    ASSERT_TRUE(frame);
    EXPECT_TRUE(frame->fin);
    if (frame->opcode == 10 && frame->payload == "p") {
      ++pongs;
    } else {
      texts.push_back(std::move(*frame));
    }
  }
  EXPECT_EQ(pongs, 1);
  ASSERT_EQ(texts.size(), 2U);
  EXPECT_EQ(texts[0].payload.size(), kSize);
  EXPECT_EQ(texts[0].payload.find_first_not_of('L'), std::string::npos);
  EXPECT_EQ(texts[1].payload.size(), 6U) << "behind";
}

TEST(NetSending, FullQueueIsAnErrorAndWhatWasTakenArrives) {
  ServerOptions options;
  options.max_queued = 8U << 20;
  ServerEnd server(options);
  auto client = RawClient::Upgraded(server.port(), 4096);
  const auto socket = server.WaitSocket();
  const std::string text(1U << 20, 'q');
  int taken = 0;
  int result = kNetOk;
  // The system's buffers take some; then the queue fills.
  while (taken < 1000 && (result = SendText(socket, text)) == kNetOk) ++taken;
  EXPECT_EQ(result, kNetQueueFull);
  EXPECT_GE(taken, 8);
  for (int i = 0; i < taken; ++i) ASSERT_EQ(client.ReadFrame()->payload.size(), text.size());
  EXPECT_TRUE(WaitFor([&] { return SendText(socket, "room again") == kNetOk; }));
  EXPECT_EQ(client.ReadFrame()->payload, "room again");
}

TEST(NetSending, FrameLargerThanTheQueueIsAnError) {
  ServerOptions options;
  options.max_queued = 1000;
  ServerEnd server(options);
  auto client = RawClient::Upgraded(server.port());
  EXPECT_EQ(SendText(server.WaitSocket(), std::string(1001, 'x')), kNetQueueFull);
  EXPECT_EQ(SendText(server.WaitSocket(), std::string(1000, 'x')), kNetOk);
  EXPECT_EQ(client.ReadFrame()->payload.size(), 1000U);
}

TEST(NetSending, CloseComesBehindWhatWaits) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port(), 4096);
  const auto socket = server.WaitSocket();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(SendText(socket, std::string(1U << 20, 'w')), kNetOk);
  EXPECT_EQ(CHttpServer::CloseWebSocket(socket), kNetOk);
  for (int i = 0; i < 20; ++i) ASSERT_EQ(client.ReadFrame()->payload.size(), 1U << 20);
  EXPECT_EQ(client.ReadFrame()->close_code(), 1000);
}

TEST(NetSending, APingBehindOurCloseFrameIsStillAnswered) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  EXPECT_EQ(CHttpServer::CloseWebSocket(server.WaitSocket()), kNetOk);
  EXPECT_EQ(client.ReadFrame()->close_code(), 1000);
  client.Send(FrameBytes{.opcode = 9}("late") + CloseBytes(1000));
  const auto pong = client.ReadFrame();
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->opcode, 10);
  EXPECT_EQ(pong->payload, "late");
  EXPECT_TRUE(client.ReadToEnd());
}

TEST(NetStall, ClientThatTakesNothingIsCutOff) {
  ServerOptions options;
  options.stall = milliseconds(150);
  ServerEnd server(options);
  auto stalled = RawClient::Upgraded(server.port(), 4096);
  const auto socket = server.WaitSocket(1);
  auto other = RawClient::Upgraded(server.port());
  const auto other_socket = server.WaitSocket(2);
  EXPECT_EQ(SendText(socket, std::string(32U << 20, 's')), kNetOk);
  ASSERT_TRUE(server.WaitCount(kWebsocketClose, 1));
  EXPECT_EQ(Story(server.EventsOf(socket)), "handshake, close");
  EXPECT_EQ(SendText(socket, "gone"), kNetNoSuchHandle);
  EXPECT_EQ(SendText(other_socket, "unharmed"), kNetOk);
  EXPECT_EQ(other.ReadFrame()->payload, "unharmed");
}

TEST(NetStall, ClientThatHasNothingToTakeStays) {
  ServerOptions options;
  options.stall = milliseconds(20);
  ServerEnd server(options);
  auto idle = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket(1);
  auto stalled = RawClient::Upgraded(server.port(), 4096);
  EXPECT_EQ(SendText(server.WaitSocket(2), std::string(32U << 20, 's')), kNetOk);
  // The other one's time is up; so is what would have been this one's.
  ASSERT_TRUE(server.WaitCount(kWebsocketClose, 1));
  EXPECT_EQ(SendText(socket, "still there"), kNetOk);
  EXPECT_EQ(idle.ReadFrame()->payload, "still there");
}

TEST(NetStall, SlowClientIsNotCutOffWhileItTakesSomething) {
  ServerOptions options;
  options.stall = milliseconds(400);
  ServerEnd server(options);
  auto slow = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket();
  constexpr std::size_t kSize = 24U << 20;
  EXPECT_EQ(SendText(socket, std::string(kSize, 's')), kNetOk);
  // A part in each quarter of the stall time, for several stall times.
  std::size_t taken = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (int part = 0; part < 16; ++part) {
    const auto next = begin + part * milliseconds(100);
    WaitFor([&] { return std::chrono::steady_clock::now() >= next; });
    const std::size_t goal = taken + (1U << 20);
    while (taken < goal) {
      const std::size_t got = slow.TakeSome(goal - taken);
      ASSERT_GT(got, 0U);
      taken += got;
    }
  }
  EXPECT_EQ(server.CountOf(kWebsocketClose), 0U);
  while (taken < kSize) {
    const std::size_t got = slow.TakeSome(1U << 20);
    ASSERT_GT(got, 0U);
    taken += got;
  }
}

TEST(NetOutbox, CountsFramesWithoutContent) {
  Outbox outbox(std::make_shared<Waker>(), 1, "127.0.0.1", 64 * 10);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(outbox.Send(1, nullptr, 0, true), kNetOk);
  EXPECT_EQ(outbox.Send(1, nullptr, 0, true), kNetQueueFull);
  OutgoingFrame frame;
  EXPECT_EQ(outbox.Take(frame), Outbox::Next::kFrame);
  EXPECT_EQ(outbox.Send(1, nullptr, 0, true), kNetQueueFull) << "it is still being sent";
  outbox.Done();
  EXPECT_EQ(outbox.Send(1, nullptr, 0, true), kNetOk);
  EXPECT_EQ(outbox.Shut(), 10U);
  EXPECT_EQ(outbox.Send(1, nullptr, 0, true), kNetNoSuchHandle);
}

// Processor time while nothing happens that a test waits for.
double SecondsUsedMeanwhile() {
  const double before = ProcessorSeconds();
  const auto until = std::chrono::steady_clock::now() + milliseconds(500);
  WaitFor([&] { return std::chrono::steady_clock::now() >= until; });
  return ProcessorSeconds() - before;
}

TEST(NetSending, WaitingCostsNoProcessorTime) {
  ServerEnd server;
  auto silent = RawClient::Upgraded(server.port());
  EXPECT_LT(SecondsUsedMeanwhile(), 0.25);
  auto full = RawClient::Upgraded(server.port(), 4096);
  const auto socket = server.WaitSocket(2);
  EXPECT_EQ(SendText(socket, std::string(32U << 20, 'w')), kNetOk);
  EXPECT_TRUE(WaitFor([&] { return full.HasInput(); }));
  EXPECT_LT(SecondsUsedMeanwhile(), 0.25);
}

}  // namespace
}  // namespace tolm::test
