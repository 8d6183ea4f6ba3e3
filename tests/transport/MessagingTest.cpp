// What is sent arrives, answers find their way back, and waiting never lasts longer than it must.

#include <algorithm>
#include <atomic>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "FrameEnd.h"
#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "support/Wait.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using std::string_literals::operator""s;

// Every byte differs from its neighbours, so that a piece in the wrong place is seen.
std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  std::uint32_t state = 12345;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

TEST_P(Messaging, APluginAsksTheFrameAndTheFrameAsksThePlugin) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));

  tag_LPCResponseData response;
  ASSERT_EQ(plugin.Ask({"0", {{"url", "/a"}, {"x", "1"}}, "question"}, response), lpc::kOk);
  EXPECT_EQ(response.body, "question");
  EXPECT_EQ(response.params, (LpcParams{{"url", "/a"}, {"x", "1"}}));

  ASSERT_EQ(frame.Ask({"alpha", {{"url", "/b"}}, "back"}, response), lpc::kOk);
  EXPECT_EQ(response.src_id, "alpha");
  EXPECT_EQ(response.body, "back");
  EXPECT_EQ(response.params, (LpcParams{{"url", "/b"}}));

  const auto seen = frame.Messages();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].src_id, "alpha");
  EXPECT_EQ(seen[0].dst_id, "0");
  EXPECT_TRUE(seen[0].need_reply);
  EXPECT_FALSE(seen[0].is_reply);
  const auto told = plugin.Messages();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].data.src_id, "0");
  EXPECT_EQ(told[0].data.dst_id, "alpha");
  EXPECT_TRUE(told[0].data.need_reply);
}

TEST_P(Messaging, AReplyToAnAsynchronousRequestIsAnInboundRecord) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));

  const std::uint64_t from_frame = frame.Request("alpha", "to the plugin");
  ASSERT_NE(from_frame, 0u);
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  const tag_LPCCallBackData reply = frame.Messages()[0];
  EXPECT_TRUE(reply.is_reply);
  EXPECT_FALSE(reply.need_reply);
  EXPECT_EQ(reply.msg_id, from_frame);
  EXPECT_EQ(reply.src_id, "alpha");
  EXPECT_EQ(reply.body, "to the plugin");

  const std::uint64_t from_plugin = plugin.client().Send({"0", {}, "to the frame"});
  ASSERT_NE(from_plugin, 0u);
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 2; }));
  EXPECT_TRUE(plugin.Messages()[1].data.is_reply);
  EXPECT_EQ(plugin.Messages()[1].data.msg_id, from_plugin);
  EXPECT_EQ(plugin.Messages()[1].data.body, "to the frame");
}

TEST_P(Messaging, ANotificationWantsNoReply) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(frame.Notify("alpha", "down"), lpc::kOk);
  EXPECT_TRUE(plugin.client().Notify({"0", {{"k", "v"}}, "up"}));
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1 && plugin.Messages().size() == 1; }));
  EXPECT_FALSE(frame.Messages()[0].need_reply);
  EXPECT_FALSE(frame.Messages()[0].is_reply);
  EXPECT_EQ(frame.Messages()[0].params, (LpcParams{{"k", "v"}}));
  EXPECT_FALSE(plugin.Messages()[0].data.need_reply);
  EXPECT_EQ(plugin.Messages()[0].data.body, "down");
}

TEST_P(Messaging, EveryLengthOfABodyArrivesAsItWas) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  // Around what is read at once, what is read to its place, what goes into one frame.
  const std::size_t in_one_frame = lpc::wire::kChunkPayload - MessageBytes({}, {}, "0", "alpha").size();
  std::vector<std::size_t> sizes = {0, 1, 5 << 20};
  for (const std::size_t edge : {std::size_t{16} << 10, std::size_t{64} << 10, in_one_frame,
                                 in_one_frame + lpc::wire::kChunkPayload, std::size_t{1} << 20}) {
    for (const std::size_t size : {edge - 1, edge, edge + 1}) sizes.push_back(size);
  }
  for (const std::size_t size : sizes) {
    const std::string body = Pattern(size);
    std::string answer;
    ASSERT_EQ(plugin.Ask(body, &answer), lpc::kOk) << size;
    EXPECT_TRUE(answer == body) << "up, " << size << " bytes";
    ASSERT_EQ(frame.Ask("alpha", body, &answer), lpc::kOk) << size;
    EXPECT_TRUE(answer == body) << "down, " << size << " bytes";
  }
}

TEST_P(Messaging, NulBytesAndLongValuesSurvive) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  const LpcParams params = {{"url", "/" + Pattern(1 << 20)}, {"nul", "a\0b\0"s}, {"k\0ey"s, "\0"s}, {"", ""}};
  const std::string body = "\0before\0after\0"s;
  tag_LPCResponseData response;
  ASSERT_EQ(plugin.Ask({"0", params, body}, response), lpc::kOk);
  EXPECT_TRUE(response.params == params);
  EXPECT_EQ(response.body, body);
  ASSERT_EQ(frame.Ask({"alpha", params, body}, response), lpc::kOk);
  EXPECT_TRUE(response.params == params);
  EXPECT_EQ(response.body, body);
}

TEST_P(Messaging, TheSourceIsWhoConnectedAndNotWhatTheMessageSays) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "honest");
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.Write(FrameBytes(FrameType::kNotify, MessageBytes("x", {}, "0", "somebody else"))));
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  EXPECT_EQ(frame.Messages()[0].src_id, "honest");
}

TEST_P(Messaging, ARequestToNobodyFailsAtOnce) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  EXPECT_EQ(frame.Ask("nobody", "x"), lpc::kNoSuchPeer);
  EXPECT_EQ(frame.Request("nobody", "x"), 0u);
  EXPECT_EQ(frame.Notify("nobody", "x"), lpc::kNoSuchPeer);
  EXPECT_EQ(frame.Ask("", "x"), lpc::kNoSuchPeer);
}

TEST_P(Messaging, ATimeOutOfNothingNeverWaits) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd&, const tag_LPCCallBackData&) {});
  ASSERT_TRUE(plugin.Meet(frame));
  for (const int time_out : {0, -1, -100'000}) {
    EXPECT_EQ(frame.Ask("alpha", "x", nullptr, time_out), lpc::kTimeOut);
  }
  // Each was sent all the same.
  EXPECT_TRUE(WaitFor([&] { return plugin.Messages().size() == 3; }));
}

TEST_P(Messaging, ALateReplyIsCountedAndNeverReachesTheCallback) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd&, const tag_LPCCallBackData&) {});
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_EQ(frame.Ask("alpha", "x", nullptr, 0), lpc::kTimeOut);
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 1; }));
  ASSERT_TRUE(plugin.Answer(plugin.Messages()[0].data, "too late"));
  EXPECT_TRUE(WaitFor([&] { return frame.statistics().late_replies == 1; }));
  // What was sent behind it arrives, it does not.
  ASSERT_TRUE(plugin.client().Notify({"0", {}, "behind"}));
  ASSERT_TRUE(WaitFor([&] { return !frame.Messages().empty(); }));
  ASSERT_EQ(frame.Messages().size(), 1u);
  EXPECT_EQ(frame.Messages()[0].body, "behind");
}

TEST_P(Messaging, ALateReplyToAPluginIsCounted) {
  FrameEnd frame(transport(), {}, [](FrameEnd&, const tag_LPCCallBackData&) {});
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_EQ(plugin.Ask("x", nullptr, 0), lpc::kTimeOut);
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  ASSERT_EQ(frame.Answer(frame.Messages()[0], "too late"), lpc::kOk);
  EXPECT_TRUE(WaitFor([&] { return plugin.client().GetStatistics().late_replies == 1; }));
  EXPECT_TRUE(plugin.Messages().empty());
}

// A reply that comes in the very moment in which the waiting ends is taken, or counted as late; it is
// never just gone.
TEST_P(Messaging, EveryReplyIsTakenOrCounted) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  std::atomic<std::uint64_t> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        const int error = frame.Ask("alpha", "x", nullptr, i % 2);
        EXPECT_TRUE(error == lpc::kOk || error == lpc::kTimeOut) << error;
        if (error == lpc::kOk) ++taken;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(WaitFor([&] { return taken + frame.statistics().late_replies == 2000; }))
      << taken << " and " << frame.statistics().late_replies;
}

// Two requests of one number, from two peers, are two requests.
TEST_P(Messaging, RepliesBelongToAPeerAndANumber) {
  FrameEnd frame(transport(), {}, [](FrameEnd&, const tag_LPCCallBackData&) {});
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer one(transport(), frame, "one");
  RawPeer two(transport(), frame, "two");
  ASSERT_TRUE(one.connected() && two.connected());
  ASSERT_TRUE(one.Write(FrameBytes(FrameType::kRequest, MessageBytes("of one"), 41)));
  ASSERT_TRUE(two.Write(FrameBytes(FrameType::kRequest, MessageBytes("of two"), 41)));
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 2; }));
  for (const auto& request : frame.Messages()) {
    EXPECT_EQ(request.msg_id, 41u);
    ASSERT_EQ(frame.Answer(request, "answer to " + request.src_id), lpc::kOk);
  }
  for (RawPeer* peer : {&one, &two}) {
    const auto reply = peer->ReadUntil(FrameType::kReply);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->header.message_id, 41u);
    EXPECT_TRUE(reply->payload.ends_with(peer == &one ? "answer to one" : "answer to two"));
  }
}

TEST_P(Messaging, NobodyAnswersInTheNameOfAnotherPeer) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer asked(transport(), frame, "asked");
  RawPeer other(transport(), frame, "other");
  ASSERT_TRUE(asked.connected() && other.connected());
  std::string answer;
  std::thread asks([&] { EXPECT_EQ(frame.Ask("asked", "x", &answer), lpc::kOk); });
  const auto request = asked.ReadUntil(FrameType::kRequest);
  ASSERT_TRUE(request);
  const std::uint64_t id = request->header.message_id;
  EXPECT_NE(id & 1, 0u) << "a thread waits for it";
  EXPECT_NE(request->header.flags & lpc::wire::kFlagWaiting, 0);
  ASSERT_TRUE(other.Write(FrameBytes(FrameType::kReply, MessageBytes("forged"), id)));
  ASSERT_TRUE(other.Write(FrameBytes(FrameType::kUndeliverable, lpc::wire::EncodeNotice({1, "forged"}), id)));
  ASSERT_TRUE(WaitFor([&] { return frame.statistics().late_replies == 1; }));
  ASSERT_TRUE(asked.Write(FrameBytes(FrameType::kReply, MessageBytes("true"), id)));
  asks.join();
  EXPECT_EQ(answer, "true");
}

TEST_P(Messaging, AWaiterIsToldWhenNobodyTakesItsRequest) {
  FrameEnd frame(transport(), {}, nullptr);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", nullptr);
  ASSERT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(plugin.Ask("x"), lpc::kRefused);
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kRefused);
  EXPECT_EQ(frame.statistics().undelivered, 2u);  // with the event
  EXPECT_EQ(plugin.client().GetStatistics().undelivered, 1u);
}

TEST_P(Messaging, AnInboundRequestTellsWhetherSomebodyWaits) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_EQ(frame.Ask("alpha", "waiting", nullptr, 12'345), lpc::kOk);
  ASSERT_NE(frame.Request("alpha", "not waiting"), 0u);
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 2; }));
  EXPECT_TRUE(plugin.Messages()[0].info.sender_waits);
  EXPECT_EQ(plugin.Messages()[0].info.time_out_ms, 12'345);
  EXPECT_FALSE(plugin.Messages()[1].info.sender_waits);
  EXPECT_EQ(plugin.Messages()[1].info.time_out_ms, 0);
}

// The last ones of a burst wait for others that do not come.
TEST_P(Messaging, ABurstArrivesWholeAlthoughNothingIsSentBehindIt) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  constexpr std::size_t kBurst = 500;
  for (std::size_t i = 0; i < kBurst; ++i) ASSERT_EQ(frame.Notify("alpha", std::to_string(i)), lpc::kOk);
  EXPECT_TRUE(WaitFor([&] { return plugin.Messages().size() == kBurst; }));
  for (std::size_t i = 0; i < kBurst; ++i) ASSERT_TRUE(plugin.client().Notify({"0", {}, std::to_string(i)}));
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == kBurst; }));
}

TEST_P(Messaging, ABurstArrivesWholeAlthoughItsSenderStopsBehindIt) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  constexpr std::size_t kBurst = 500;
  for (std::size_t i = 0; i < kBurst; ++i) ASSERT_TRUE(plugin.client().Notify({"0", {}, std::to_string(i)}));
  plugin.Stop();
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == kBurst; }));
}

// Their answers are gathered while more requests wait.
TEST_P(Messaging, ManyRequestsAtOnceAreAllAnswered) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  constexpr std::size_t kRequests = 500;
  for (std::size_t i = 0; i < kRequests; ++i) ASSERT_NE(frame.Request("alpha", std::to_string(i)), 0u);
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == kRequests; }));
}

TEST_P(Messaging, ASmallMessageOvertakesALargeOne) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "slow");
  ASSERT_TRUE(raw.connected());
  // Nobody reads yet, so both are on their way when reading begins.
  const std::size_t size = 60u << 20;
  ASSERT_EQ(frame.Notify("slow", std::string(size, 'L')), lpc::kOk);
  ASSERT_EQ(frame.Notify("slow", "small"), lpc::kOk);
  std::size_t before_small = 0;
  std::size_t of_large = 0;
  bool small_seen = false;
  while (of_large < size) {
    const auto part = raw.Read();
    ASSERT_TRUE(part);
    if (part->header.stream == 0) {
      small_seen = true;
      EXPECT_TRUE(part->payload.ends_with("small"));
    } else {
      of_large += part->payload.size();
      if (!small_seen) before_small = of_large;
    }
  }
  EXPECT_TRUE(small_seen);
  // What a stream of the system holds on its way at most, and the chunk that is being written.
  constexpr std::size_t kOnItsWay = 1u << 20;
  EXPECT_LE(before_small, kOnItsWay + 2 * lpc::wire::kChunkPayload);
}

TEST_P(Messaging, LargeMessagesOfManyThreadsArriveWhole) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 4; ++i) {
        const std::string body = std::to_string(t) + Pattern(static_cast<std::size_t>(t) * 300'000 + 7);
        std::string answer;
        const int error = (t + i) % 2 == 0 ? frame.Ask("alpha", body, &answer) : plugin.Ask(body, &answer);
        EXPECT_EQ(error, lpc::kOk);
        EXPECT_TRUE(answer == body);
        if (answer == body) ++answered;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(answered, 24);
}

TEST_P(Messaging, ManyThreadsAskAtOnceBothWays) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) {
        const std::string body = std::to_string(t) + ":" + std::to_string(i);
        std::string answer;
        const int error = t % 2 == 0 ? frame.Ask("alpha", body, &answer) : plugin.Ask(body, &answer);
        if (error == lpc::kOk && answer == body) ++answered;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(answered, 800);
}

}  // namespace
}  // namespace tolm::test
