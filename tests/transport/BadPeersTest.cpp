// Peers that break the rules once they are in: each is cut off with a reason, and nobody else notices.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BadPeerScene.h"
#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "WrappedTransport.h"
#include "support/Wait.h"
#include "wire/Bytes.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;

TEST_P(BadPeers, UnknownOptionalFramesAreSkipped) {
  Scene scene(transport());
  RawPeer raw(transport(), scene.frame, "modern");
  ASSERT_TRUE(raw.connected());
  std::string bytes;
  for (const int type : {128, 200, 255}) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, lpc::wire::kMaxFramePayload}) {
      bytes += FrameBytes(static_cast<FrameType>(type), std::string(size, 'o'), 7, 0xFF, 0xFFFF);
    }
  }
  ASSERT_TRUE(raw.Write(bytes + FrameBytes(FrameType::kRequest, MessageBytes("understood"), 2)));
  const auto reply = raw.ReadUntil(FrameType::kReply);
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->payload.ends_with("understood"));
}

TEST_P(BadPeers, APingIsAnsweredAndAnUnexpectedPongIsNot) {
  Scene scene(transport());
  RawPeer raw(transport(), scene.frame, "pinging");
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.Write(FrameBytes(FrameType::kPong) + FrameBytes(FrameType::kCancel, {}, 12345) +
                        FrameBytes(FrameType::kUndeliverable, {}, 12345) + FrameBytes(FrameType::kPing)));
  const auto answer = raw.Read();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type(), FrameType::kPong);
}

TEST_P(BadPeers, WhoBreaksTheRulesIsToldWhichAndGoes) {
  lpc::Options options;
  options.max_message_bytes = 8u << 20;
  Scene scene(transport(), options);
  const std::string message = MessageBytes("body");
  LpcParams many;
  for (int i = 0; i < 100'000; ++i) many["key " + std::to_string(i)] = "v";
  const std::string many_params = MessageBytes("x", many);
  std::string many_frames;
  for (std::size_t at = 0; at < many_params.size(); at += 1u << 20) {
    const bool last = at + (1u << 20) >= many_params.size();
    many_frames +=
        FrameBytes(at == 0 ? FrameType::kNotify : FrameType::kChunk,
                   std::string_view(many_params).substr(at, 1u << 20), 0, last ? 0 : lpc::wire::kFlagMore, 1);
  }
  const std::string first = FrameBytes(FrameType::kNotify, message.substr(0, 5), 0, lpc::wire::kFlagMore, 3);
  struct Case {
    std::string what;
    std::string bytes;
    int code;
  };
  const std::vector<Case> cases = {
      {"an unknown required type", FrameBytes(static_cast<FrameType>(127)), lpc::kProtocol},
      {"a frame of 4 GiB", StatedSize(FrameBytes(FrameType::kNotify), 0xFFFFFFFF), lpc::kMessageTooLarge},
      {"a frame above the limit", StatedSize(FrameBytes(FrameType::kNotify), (1u << 20) + 1),
       lpc::kMessageTooLarge},
      {"an optional frame above the limit",
       StatedSize(FrameBytes(static_cast<FrameType>(128)), (1u << 20) + 1), lpc::kMessageTooLarge},
      {"a ping above the limit", FrameBytes(FrameType::kPing, std::string(1025, 'p')), lpc::kMessageTooLarge},
      {"a body of 4 GiB", FrameBytes(FrameType::kNotify, Prefix(8, 0xFFFFFFFF)), lpc::kMessageTooLarge},
      {"params of 4 GiB", FrameBytes(FrameType::kNotify, Prefix(0xFFFFFFFF, 0)), lpc::kMessageTooLarge},
      {"a body just above the limit", FrameBytes(FrameType::kNotify, Prefix(8, (8u << 20) - 19)),
       lpc::kMessageTooLarge},
      {"100,000 params", many_frames, lpc::kProtocol},
      {"no message inside", FrameBytes(FrameType::kNotify), lpc::kProtocol},
      {"less than it says", FrameBytes(FrameType::kNotify, message.substr(0, message.size() - 1)),
       lpc::kProtocol},
      {"more than it says", FrameBytes(FrameType::kNotify, message + "x"), lpc::kProtocol},
      {"params that do not add up", FrameBytes(FrameType::kNotify, Prefix(3, 0) + "abc"), lpc::kProtocol},
      {"a chunk of nothing", FrameBytes(FrameType::kChunk, "x", 0, 0, 9), lpc::kProtocol},
      {"a chunk without a number", FrameBytes(FrameType::kChunk, "x"), lpc::kProtocol},
      {"more to come without a number", FrameBytes(FrameType::kNotify, "x", 0, lpc::wire::kFlagMore, 0),
       lpc::kProtocol},
      {"a number with nothing to come", FrameBytes(FrameType::kNotify, message, 0, 0, 5), lpc::kProtocol},
      {"a number in use", first + first, lpc::kProtocol},
      {"an end too early", first + FrameBytes(FrameType::kChunk, message.substr(5, 4), 0, 0, 3),
       lpc::kProtocol},
  };
  std::uint64_t cut_off = 0;
  for (const Case& bad : cases) {
    RawPeer raw(transport(), scene.frame, bad.what);
    ASSERT_TRUE(raw.connected()) << bad.what;
    raw.Write(bad.bytes);
    const auto reason = raw.ReadReason();
    EXPECT_TRUE(reason) << bad.what;
    if (reason) {
      EXPECT_EQ(reason->code, bad.code) << bad.what << ": " << reason->reason;
      EXPECT_FALSE(reason->reason.empty()) << bad.what;
    }
    EXPECT_TRUE(scene.frame.WaitStatus(bad.what, "disconnected")) << bad.what;
    EXPECT_EQ(scene.frame.statistics().cut_off, ++cut_off) << bad.what;
  }
  EXPECT_TRUE(scene.BystanderIsServed());
  for (const auto& record : scene.frame.Messages()) EXPECT_EQ(record.src_id, "bystander");
}

TEST_P(BadPeers, AMessageOfTheLargestSizeIsTakenAndOneByteMoreIsNot) {
  lpc::Options options;
  options.max_message_bytes = 3000;
  Scene scene(transport(), options);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(scene.frame));
  const std::size_t room = 3000 - MessageBytes({}, {}, "0", "alpha").size();
  EXPECT_EQ(plugin.Ask(std::string(room, 'x')), lpc::kOk);
  EXPECT_EQ(scene.frame.Ask("alpha", std::string(room, 'x')), lpc::kOk);
  // The frame's limit counts for the plugin as well, which learnt it in the handshake.
  EXPECT_EQ(plugin.Ask(std::string(room + 1, 'x')), lpc::kMessageTooLarge);
  EXPECT_EQ(scene.frame.Ask("alpha", std::string(room + 1, 'x')), lpc::kMessageTooLarge);
  EXPECT_EQ(plugin.Ask("still connected"), lpc::kOk);
  EXPECT_EQ(scene.frame.StatusesOf("alpha"), std::vector<std::string>{"connected"});
}

TEST_P(BadPeers, ASenderLearnsAtOnceThatItsMessageIsTooLarge) {
  Scene scene(transport());
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(scene.frame));
  LpcParams many;
  for (int i = 0; i < 100'000; ++i) many[std::to_string(i)] = "v";
  tag_LPCResponseData response;
  EXPECT_EQ(plugin.Ask({"0", many, "x"}, response), lpc::kMessageTooLarge);
  EXPECT_EQ(scene.frame.Ask({"alpha", many, "x"}, response), lpc::kMessageTooLarge);
  tag_LPCRequestData large{"alpha", {}, std::string(256u << 20, 'x')};
  int error = lpc::kOk;
  EXPECT_EQ(scene.frame.core().Send(large, {large.body}, error), 0u);
  EXPECT_EQ(error, lpc::kMessageTooLarge);
  EXPECT_EQ(scene.frame.Ask(std::move(large), response), lpc::kMessageTooLarge);
  large = {"0", {}, std::string(256u << 20, 'x')};
  EXPECT_EQ(plugin.Ask(std::move(large), response), lpc::kMessageTooLarge);
  EXPECT_EQ(plugin.Ask("still connected"), lpc::kOk);
}

/// What a plugin is told when the frame's first bytes are these.
PluginEnd::Event FirstEvent(os::LocalTransport& transport, const std::string& bytes) {
  auto listening = transport.Listen("frame");
  EXPECT_TRUE(listening.value) << listening.message;
  PluginEnd plugin(transport, "alpha", PluginEnd::Echo,
                   [](lpcclient::Settings& settings) { settings.reconnect_first_ms = kLong; });
  std::unique_ptr<os::Stream> stream;
  if (!WaitFor([&] { return (stream = listening.value->Accept().stream) != nullptr; })) return {};
  const os::ConstBuffer buffer{bytes.data(), bytes.size()};
  EXPECT_EQ(stream->Write(&buffer, 1).bytes, bytes.size());
  if (!WaitFor([&] { return !plugin.Events().empty(); })) return {};
  plugin.Stop();
  return plugin.Events()[0];
}

TEST_P(BadPeers, AReasonWithControlCharactersDoesNotReachTheLogAsTheyAre) {
  const auto event = FirstEvent(
      transport(),
      FrameBytes(FrameType::kRefuse, lpc::wire::EncodeNotice({lpc::kRefused, "line\nforged line\x1b[2J"})));
  EXPECT_NE(event.reason.find("forged"), std::string::npos) << event.reason;
  EXPECT_EQ(event.reason.find_first_of("\n\x1b"), std::string::npos);
}

TEST_P(BadPeers, ARefusalThatSaysThatNothingIsWrongIsARefusal) {
  const auto event =
      FirstEvent(transport(), FrameBytes(FrameType::kRefuse, lpc::wire::EncodeNotice({lpc::kOk, ""})));
  EXPECT_EQ(event.what, "failed");
  EXPECT_EQ(event.error, lpc::kRefused);
}

TEST_P(BadPeers, APluginLeavesAFrameThatDoesNotSpeakTheProtocol) {
  const std::vector<std::string> answers = {
      "HTTP/1.1 400 Bad Request\r\n\r\n",
      FrameBytes(FrameType::kWelcome, "x"),
      FrameBytes(FrameType::kHello, HelloPayload(1, 1, "me too")),
      FrameBytes(FrameType::kRequest, MessageBytes("x"), 2),
      FrameBytes(FrameType::kWelcome, lpc::wire::EncodeWelcome({9, 0, 1000})),
  };
  for (const std::string& answer : answers) {
    const auto event = FirstEvent(transport(), answer);
    EXPECT_EQ(event.what, "failed");
    EXPECT_TRUE(event.error == lpc::kProtocol || event.error == lpc::kMessageTooLarge) << event.error;
  }
}

// For every N: the Nth read or write of either end's connections fails. Whoever asks is told so, both ends
// find together again, and nobody else notices.
TEST_P(BadPeers, WhicheverReadOrWriteFails) {
  WrappedTransport wrapped(transport());
  for (const bool at_the_frame : {true, false}) {
    bool reached = true;
    for (int n = 1; reached && n < 200; ++n) {
      FrameEnd frame(at_the_frame ? static_cast<os::LocalTransport&>(wrapped) : transport());
      ASSERT_EQ(frame.Listen(), lpc::kOk);
      wrapped.truth.operations_until_failure = n;
      PluginEnd plugin(at_the_frame ? transport() : static_cast<os::LocalTransport&>(wrapped), "alpha");
      const std::string large(300'000, 'l');
      // Until both ways have worked once: with the failure behind it, that is soon.
      const auto works = [&] {
        if (!plugin.client().WaitConnected(kLong)) return false;
        const int up = plugin.Ask(large);
        const int down = frame.Ask("alpha", large);
        for (const int error : {up, down}) {
          EXPECT_TRUE(error == lpc::kOk || error == lpc::kPeerGone || error == lpc::kNotConnected ||
                      error == lpc::kNoSuchPeer)
              << n << ": " << lpc::ErrorText(error);
        }
        return up == lpc::kOk && down == lpc::kOk;
      };
      EXPECT_TRUE(WaitFor(works)) << n;
      reached = wrapped.truth.operations_until_failure == 0;
      wrapped.truth.operations_until_failure = 0;
      const auto statuses = frame.StatusesOf("alpha");
      for (std::size_t i = 0; i < statuses.size(); ++i) {
        EXPECT_EQ(statuses[i], i % 2 == 0 ? "connected" : "disconnected") << n;
      }
    }
    EXPECT_FALSE(reached) << "more operations than expected";
  }
}

}  // namespace
}  // namespace tolm::test
