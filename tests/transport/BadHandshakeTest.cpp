// Peers that do not shake hands as they should: each is refused with a reason, and nobody else notices.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BadPeerScene.h"
#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "support/Wait.h"
#include "wire/Bytes.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using std::string_literals::operator""s;

TEST_P(BadPeers, AHandshakeThatIsNoneIsAnsweredWithAReason) {
  Scene scene(transport());
  const std::string good = HelloPayload(1, 1, "raw");
  std::string other_magic = good;
  other_magic[0] = 'X';
  std::string id_beyond_the_end = good;
  lpc::wire::StoreNumber(id_beyond_the_end.data() + 12, std::uint16_t{900});
  const std::vector<std::pair<std::string, std::string>> knocks = {
      {"another magic", FrameBytes(FrameType::kHello, other_magic)},
      {"no payload", FrameBytes(FrameType::kHello)},
      {"an id beyond the end", FrameBytes(FrameType::kHello, id_beyond_the_end)},
      {"only newer versions", FrameBytes(FrameType::kHello, HelloPayload(2, 9, "raw"))},
      {"only older versions", FrameBytes(FrameType::kHello, HelloPayload(0, 0, "raw"))},
      {"a request first", FrameBytes(FrameType::kRequest, MessageBytes("x"), 2)},
      {"a welcome first", FrameBytes(FrameType::kWelcome, lpc::wire::EncodeWelcome({}))},
      {"a refusal first", FrameBytes(FrameType::kRefuse, lpc::wire::EncodeNotice({1, "no"}))},
      {"an unknown required type", FrameBytes(static_cast<FrameType>(99), "x")},
      {"a frame of type 0", FrameBytes(static_cast<FrameType>(0))},
      {"a HELLO above the limit", FrameBytes(FrameType::kHello, good + std::string(2000, 'x'))},
      {"4 GiB", StatedSize(FrameBytes(FrameType::kHello, good), 0xFFFFFFFF)},
      {"another protocol", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"},
  };
  std::uint64_t refused = 0;
  for (const auto& [what, bytes] : knocks) {
    const auto reason = scene.Knock(bytes);
    EXPECT_TRUE(reason) << what;
    if (reason) {
      EXPECT_NE(reason->code, lpc::kOk) << what;
      EXPECT_FALSE(reason->reason.empty()) << what;
    }
    ++refused;
    EXPECT_TRUE(WaitFor([&] { return scene.frame.statistics().refused == refused; }))
        << what << ": " << scene.frame.statistics().refused << " instead of " << refused;
  }
  EXPECT_EQ(scene.frame.statistics().connections, 1u);
  EXPECT_EQ(scene.frame.statistics().cut_off, 0u);
}

TEST_P(BadPeers, AnIdThatMayNotBeIsRefused) {
  Scene scene(transport());
  for (const std::string& id : {""s, "0"s, "a\nb"s, "a\0b"s, "\x7f"s, std::string(256, 'a')}) {
    const auto reason = scene.Knock(HelloBytes(id));
    ASSERT_TRUE(reason);
    EXPECT_EQ(reason->code, lpc::kRefused);
  }
  EXPECT_EQ(scene.frame.statistics().refused, 6u);
  RawPeer longest(transport(), scene.frame, std::string(255, 'a'));
  EXPECT_TRUE(longest.connected());
}

TEST_P(BadPeers, ANewerHelloIsUnderstood) {
  Scene scene(transport());
  lpc::wire::Hello hello;
  hello.highest_version = 7;
  hello.capabilities = 0xFFFFFFFF;
  hello.id = "newer";
  RawPeer raw(transport());
  ASSERT_TRUE(
      raw.Write(FrameBytes(FrameType::kHello, lpc::wire::EncodeHello(hello) + "fields of the future")));
  const auto answer = raw.Read();
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->type(), FrameType::kWelcome);
  lpc::wire::Welcome welcome;
  ASSERT_TRUE(lpc::wire::DecodeWelcome(welcome, answer->payload));
  EXPECT_EQ(welcome.version, 1u);
  EXPECT_EQ(welcome.capabilities, 0u);
  EXPECT_EQ(welcome.max_message_bytes, lpc::Options().max_message_bytes);
}

// Whoever was refused stays refused, whatever it sent behind.
TEST_P(BadPeers, ASecondHelloBehindARefusedOneIsNotRead) {
  Scene scene(transport());
  RawPeer raw(transport());
  ASSERT_TRUE(raw.Write(HelloBytes("0") + HelloBytes("second")));
  const auto answer = raw.Read();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type(), FrameType::kRefuse);
  EXPECT_FALSE(raw.Read());
  EXPECT_TRUE(scene.BystanderIsServed());
  EXPECT_TRUE(scene.frame.StatusesOf("second").empty());
  EXPECT_EQ(scene.frame.statistics().refused, 1u);
  EXPECT_EQ(scene.frame.statistics().connections, 1u);
}

TEST_P(BadPeers, ASecondHelloOfAnOpenPeerEndsItsConnection) {
  Scene scene(transport());
  RawPeer raw(transport(), scene.frame, "twice");
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.Write(HelloBytes("thrice") + FrameBytes(FrameType::kNotify, MessageBytes("behind"))));
  const auto reason = raw.ReadReason();
  ASSERT_TRUE(reason);
  EXPECT_EQ(reason->code, lpc::kProtocol);
  EXPECT_TRUE(scene.frame.WaitStatus("twice", "disconnected"));
  EXPECT_EQ(scene.frame.statistics().cut_off, 1u);
  EXPECT_EQ(scene.frame.statistics().refused, 0u);
}

TEST_P(BadPeers, AHandshakeInPiecesIsAHandshake) {
  Scene scene(transport());
  RawPeer raw(transport());
  for (const char c : HelloBytes("piecewise")) ASSERT_TRUE(raw.Write(std::string(1, c)));
  const auto answer = raw.Read();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type(), FrameType::kWelcome);
}

TEST_P(BadPeers, WhoLeavesInItsHandshakeIsForgotten) {
  Scene scene(transport());
  const std::string hello = HelloBytes("leaving");
  for (std::size_t size = 0; size < hello.size(); ++size) {
    RawPeer raw(transport());
    ASSERT_TRUE(raw.connected());
    ASSERT_TRUE(raw.Write(hello.substr(0, size)));
  }
  EXPECT_TRUE(scene.BystanderIsServed());
  EXPECT_TRUE(scene.frame.StatusesOf("leaving").empty());
  EXPECT_EQ(scene.frame.statistics().connections, 1u);
}

TEST_P(BadPeers, ASilentOrHalfSentHandshakeIsCutOffInTime) {
  lpc::Options options;
  options.handshake_ms = 100;
  Scene scene(transport(), options);
  RawPeer silent(transport());
  RawPeer half(transport());
  RawPeer half_a_header(transport());
  ASSERT_TRUE(half.Write(HelloBytes("half").substr(0, 25)));
  ASSERT_TRUE(half_a_header.Write("\x1d"));
  for (RawPeer* peer : {&silent, &half, &half_a_header}) {
    const auto reason = peer->ReadReason();
    ASSERT_TRUE(reason);
    EXPECT_EQ(reason->code, lpc::kTimeOut);
  }
  EXPECT_GE(scene.frame.statistics().refused, 3u);
}

TEST_P(BadPeers, OnlySoManyMayBeInTheirHandshake) {
  lpc::Options options;
  options.max_half_open = 4;
  options.handshake_ms = kLong;
  Scene scene(transport(), options);
  std::vector<std::unique_ptr<RawPeer>> silent;
  for (int i = 0; i < 4; ++i) {
    silent.push_back(std::make_unique<RawPeer>(transport()));
    ASSERT_TRUE(silent.back()->connected());
  }
  const auto reason = scene.Knock("");
  ASSERT_TRUE(reason);
  EXPECT_EQ(reason->code, lpc::kQueueFull);
  EXPECT_EQ(scene.frame.statistics().refused, 1u);
  silent.pop_back();
  EXPECT_TRUE(WaitFor([&] {
    RawPeer next(transport());
    const auto answer = next.Shake("next");
    return answer && answer->type() == FrameType::kWelcome;
  }));
}

}  // namespace
}  // namespace tolm::test
