// What a client sends, and what of it arrives.

#include <gtest/gtest.h>

#include "ServerEnd.h"

namespace tolm::test {
namespace {

using Tolm::Net::CHttpServer;
using namespace Tolm::Net;

TEST(NetFrames, ArriveOneByOneWithOpcodeAndFinalFlag) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("whole") + Text("a", false) + FrameBytes{.opcode = 0, .fin = false}("b") +
              FrameBytes{.opcode = 0}("c") + FrameBytes{.opcode = 2}("bin"));
  EXPECT_TRUE(
      server.WaitStory("handshake, text 'whole', text- 'a', continuation- 'b', continuation 'c', "
                       "binary 'bin'"))
      << Story(server.Events());
}

TEST(NetFrames, EmptyTextArrives) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text(""));
  EXPECT_TRUE(server.WaitStory("handshake, text ''"));
}

TEST(NetFrames, ArriveWholeHoweverTheyAreCutOnTheWay) {
  ServerEnd server;
  RawClient client(server.port());
  // Request and frames, one byte at a time: every boundary is a boundary once.
  const std::string bytes = UpgradeRequestBytes() + Text(std::string(130, 'x')) + Text("y");
  for (const char byte : bytes) ASSERT_TRUE(client.Send({&byte, 1}));
  EXPECT_TRUE(server.WaitStory("handshake, text '" + std::string(130, 'x') + "', text 'y'"));
}

TEST(NetFrames, BehindTheRequestInOnePieceArrive) {
  ServerEnd server;
  RawClient client(server.port());
  client.Send(UpgradeRequestBytes() + Text("at once") + CloseBytes(1000));
  EXPECT_TRUE(server.WaitStory("handshake, text 'at once', close"));
}

class NetFrameLengths : public testing::TestWithParam<std::size_t> {};
TEST_P(NetFrameLengths, PassBothWays) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  const std::string payload(GetParam(), 'p');
  client.Send(Text(payload));
  ASSERT_TRUE(server.WaitCount(kWebsocketText, 1));
  EXPECT_EQ(server.Events().back().data, payload);
  EXPECT_EQ(CHttpServer::SendWebSocketMsg(server.WaitSocket(), kWebsocketBinary, payload.data(),
                                          static_cast<std::uint32_t>(payload.size()), true),
            kNetOk);
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload, payload);
  EXPECT_EQ(frame->opcode, 2);
  EXPECT_TRUE(frame->fin);
  EXPECT_FALSE(frame->masked);
}
INSTANTIATE_TEST_SUITE_P(Ladder, NetFrameLengths,
                         testing::Values(0, 1, 125, 126, 127, 65535, 65536, 65537, 300000));

class NetLargeFrames : public testing::TestWithParam<std::size_t> {};
TEST_P(NetLargeFrames, ReachTheCallback) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  ASSERT_TRUE(client.Send(Text(std::string(GetParam(), 'L'))));
  ASSERT_TRUE(server.WaitCount(kWebsocketText, 1));
  const auto event = server.Events().back();
  EXPECT_EQ(event.data.size(), GetParam());
  EXPECT_EQ(event.data.find_first_not_of('L'), std::string::npos);
}
INSTANTIATE_TEST_SUITE_P(AroundTheUsersLimit, NetLargeFrames,
                         testing::Values(62914560, 62914561, CHttpServer::kMaxFramePayload));

TEST(NetFrames, LargerThanTheLimitEndTheConnectionBeforeTheirPayload) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(FrameBytes{}.Header(std::uint64_t{CHttpServer::kMaxFramePayload} + 1));
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->opcode, 8);
  EXPECT_EQ(frame->close_code(), 1009);
  EXPECT_TRUE(client.ReadToEnd());
  EXPECT_TRUE(server.WaitStory("handshake, close"));
}

TEST(NetFrames, PingIsAnsweredBetweenFragmentsAndNotHandedOn) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("a", false) + FrameBytes{.opcode = 9}("are you there") + FrameBytes{.opcode = 10}("x") +
              FrameBytes{.opcode = 0}("b"));
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->opcode, 10);
  EXPECT_EQ(frame->payload, "are you there");
  EXPECT_TRUE(server.WaitStory("handshake, text- 'a', continuation 'b'"));
}

TEST(NetFrames, EveryPingOfAFewIsAnsweredInOrder) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  std::string pings;
  for (int i = 0; i < 10; ++i) pings += FrameBytes{.opcode = 9}(std::to_string(i));
  client.Send(pings);
  for (int i = 0; i < 10; ++i) {
    const auto frame = client.ReadFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, std::to_string(i));
  }
}

TEST(NetFrames, PingsOfAClientThatReadsNothingTakeNoMemory) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port(), 4096);
  std::string pings;
  for (int i = 0; i < 2000; ++i) pings += FrameBytes{.opcode = 9}(std::string(125, 'p'));
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(client.Send(pings));
  client.Send(Text("still read"));
  EXPECT_TRUE(server.WaitStory("handshake, text 'still read'"));
}

struct Fault {
  const char* name;
  std::string bytes;
  int code;
};
void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class NetFaults : public testing::TestWithParam<Fault> {};
TEST_P(NetFaults, EndThatConnectionAloneWithTheirCode) {
  ServerEnd server;
  auto other = RawClient::Upgraded(server.port());
  ASSERT_GT(server.WaitSocket(1), 0);
  auto client = RawClient::Upgraded(server.port());
  const auto socket = server.WaitSocket(2);
  client.Send(GetParam().bytes);
  std::optional<SeenFrame> frame;
  while ((frame = client.ReadFrame()) && frame->opcode != 8) {
  }
  ASSERT_TRUE(frame) << "no close frame";
  EXPECT_EQ(frame->close_code(), GetParam().code);
  EXPECT_TRUE(client.ReadToEnd());
  ASSERT_TRUE(server.WaitCount(kWebsocketClose, 1));
  EXPECT_EQ(server.EventsOf(socket).back().type, kWebsocketClose);
  other.Send(Text("unharmed"));
  ASSERT_TRUE(server.WaitCount(kWebsocketText, 1));
  EXPECT_EQ(server.CountOf(kWebsocketClose), 1U);
}
INSTANTIATE_TEST_SUITE_P(
    OfClients, NetFaults,
    testing::Values(Fault{"unmasked", FrameBytes{.masked = false}("x"), 1002},
                    Fault{"unmasked and empty", FrameBytes{.masked = false}(""), 1002},
                    Fault{"unmasked ping", FrameBytes{.opcode = 9, .masked = false}(""), 1002},
                    Fault{"reserved bit 1", FrameBytes{.reserved = 4}("x"), 1002},
                    Fault{"reserved bit 3", FrameBytes{.reserved = 1}("x"), 1002},
                    Fault{"reserved bit on ping", FrameBytes{.opcode = 9, .reserved = 2}(""), 1002},
                    Fault{"opcode 3", FrameBytes{.opcode = 3}("x"), 1002},
                    Fault{"opcode 15", FrameBytes{.opcode = 15}("x"), 1002},
                    Fault{"ping in fragments", FrameBytes{.opcode = 9, .fin = false}("x"), 1002},
                    Fault{"close in fragments", FrameBytes{.opcode = 8, .fin = false}(""), 1002},
                    Fault{"ping of 126", FrameBytes{.opcode = 9}(std::string(126, 'x')), 1002},
                    Fault{"continuation of nothing", FrameBytes{.opcode = 0}("x"), 1002},
                    Fault{"continuation behind the end", Text("x") + FrameBytes{.opcode = 0}("x"), 1002},
                    Fault{"text within text", Text("x", false) + Text("x"), 1002},
                    Fault{"binary within text", Text("x", false) + FrameBytes{.opcode = 2}("x"), 1002},
                    Fault{"length 125 in two bytes", FrameBytes{}.Header(125, 2), 1002},
                    Fault{"length 65535 in eight bytes", FrameBytes{}.Header(65535, 8), 1002},
                    Fault{"negative length", FrameBytes{}.Header(std::uint64_t{1} << 63), 1002},
                    Fault{"text that is not UTF-8", Text("\xff"), 1007},
                    Fault{"text that ends in a character", Text("\xc3"), 1007},
                    Fault{"surrogate", Text("\xed\xa0\x80"), 1007},
                    Fault{"not UTF-8 over two fragments",
                          Text("\xe2\x82", false) + FrameBytes{.opcode = 0}("x"), 1007},
                    Fault{"close with half a code", FrameBytes{.opcode = 8}("\x03"), 1002},
                    Fault{"close 999", CloseBytes(999), 1002}, Fault{"close 1005", CloseBytes(1005), 1002},
                    Fault{"close 5000", CloseBytes(5000), 1002},
                    Fault{"close reason that is not UTF-8", CloseBytes(1000, "\xff"), 1007}));

TEST(NetFrames, CharactersMayBeSplitOverFragmentsAndPings) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("\xe2", false) + FrameBytes{.opcode = 9}("\xff") +
              FrameBytes{.opcode = 0, .fin = false}("\x82") + FrameBytes{.opcode = 0}("\xac"));
  EXPECT_TRUE(server.WaitStory("handshake, text- '\xe2', continuation- '\x82', continuation '\xac'"));
}

TEST(NetFrames, BinaryMayHoldAnything) {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(FrameBytes{.opcode = 2, .fin = false}("\xff") + FrameBytes{.opcode = 0}("\xfe"));
  EXPECT_TRUE(server.WaitStory("handshake, binary- '\xff', continuation '\xfe'"));
}

}  // namespace
}  // namespace tolm::test
