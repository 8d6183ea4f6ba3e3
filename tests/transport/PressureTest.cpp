// Peers that take nothing, or send more than anybody can work on: what they cost is bounded, and the
// others are served meanwhile.

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "FrameEnd.h"
#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "WrappedTransport.h"
#include "support/LogCapture.h"
#include "support/Wait.h"
#include "wire/Bytes.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;

constexpr std::size_t kMiB = 1u << 20;
// What the system and one turn of reading may hold beyond a limit.
constexpr std::size_t kSlack = 4 * kMiB;

// A peer that writes the same bytes again and again.
class Flood {
 public:
  Flood(RawPeer& peer, std::string bytes) : peer_(peer), bytes_(std::move(bytes)) {}

  /// Until the connection ends, or `enough` holds while nothing more fits; how much was taken so far.
  template <typename Predicate>
  std::size_t Until(Predicate enough) {
    WaitFor(
        [&] {
          for (;;) {
            if (rest_.empty()) rest_ = bytes_;
            const std::size_t before = rest_.size();
            if (!peer_.WriteSome(rest_)) return true;
            taken_ += before - rest_.size();
            if (rest_.size() == before) return static_cast<bool>(enough());
          }
        },
        std::chrono::milliseconds(kLong));
    return taken_;
  }

 private:
  RawPeer& peer_;
  const std::string bytes_;
  std::string_view rest_;
  std::size_t taken_ = 0;
};

bool Names(const LogCapture& log, const std::string& function, const std::string& id) {
  for (const LogLine& line : log.LinesOf(function)) {
    if (line.text.find("[" + id + "]") != std::string::npos) return true;
  }
  return false;
}

TEST_P(Pressure, APeerThatTakesNothingFillsItsQueueAndIsCutOff) {
  lpc::Options options;
  options.max_queue_bytes = kMiB;
  options.stall_ms = 300;
  LogCapture log(4);
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  RawPeer deaf(transport(), frame, "deaf");
  ASSERT_TRUE(deaf.connected());
  const std::string body(10'000, 'x');
  std::size_t sent = 0;
  int error = lpc::kOk;
  while ((error = frame.Notify("deaf", body)) == lpc::kOk) {
    sent += body.size();
    ASSERT_LT(sent, kMiB + kSlack);
  }
  // A machine that sleeps through the rest of the test may have it cut off already.
  EXPECT_TRUE(error == lpc::kQueueFull || error == lpc::kPeerGone) << error;
  std::string answer;
  EXPECT_EQ(frame.Ask("alpha", "x", &answer), lpc::kOk);
  EXPECT_TRUE(frame.WaitStatus("deaf", "disconnected"));
  EXPECT_EQ(frame.statistics().cut_off, 1u);
  EXPECT_TRUE(Names(log, "OnClosed", "deaf"));
}

TEST_P(Pressure, SmallMessagesFillAQueueToo) {
  lpc::Options options;
  options.max_queue_bytes = kMiB;
  options.stall_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer deaf(transport(), frame, "deaf");
  ASSERT_TRUE(deaf.connected());
  int sent = 0;
  while (frame.Notify("deaf", "") == lpc::kOk) ASSERT_LT(++sent, 60'000) << "each costs more than its bytes";
  EXPECT_GT(sent, 1000);
}

TEST_P(Pressure, APeerThatReadsSlowlyIsNotCutOff) {
  lpc::Options options;
  options.stall_ms = 1000;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer slow(transport(), frame, "slow");
  ASSERT_TRUE(slow.connected());
  for (int i = 0; i < 40; ++i) ASSERT_EQ(frame.Notify("slow", std::string(50'000, 'x')), lpc::kOk);
  for (int i = 0; i < 40; ++i) {
    // A breath between two messages; all of them together take longer than a stall may.
    WaitFor([] { return false; }, std::chrono::milliseconds(40));
    const auto message = slow.Read();
    ASSERT_TRUE(message) << i;
    EXPECT_EQ(message->type(), FrameType::kNotify);
  }
  EXPECT_EQ(frame.StatusesOf("slow"), std::vector<std::string>{"connected"});
}

TEST_P(Pressure, AMessageAboveTheQueueGoesOutAlone) {
  lpc::Options options;
  options.max_queue_bytes = kMiB;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer peer(transport(), frame, "peer");
  ASSERT_TRUE(peer.connected());
  EXPECT_EQ(frame.Notify("peer", std::string(3 * kMiB, 'x')), lpc::kOk);
  EXPECT_EQ(frame.Notify("peer", "small"), lpc::kQueueFull);
  std::size_t read = 0;
  while (read < 3 * kMiB) {
    const auto part = peer.Read();
    ASSERT_TRUE(part);
    read += part->payload.size();
  }
  EXPECT_TRUE(WaitFor([&] { return frame.Notify("peer", "small") == lpc::kOk; }));
}

TEST_P(Pressure, AFloodIsSlowedDownAndNamedAndTheOthersAreServed) {
  lpc::Options options;
  options.max_inbound_bytes = kMiB;
  Gate gate;
  std::atomic<std::size_t> handled{0};
  LogCapture log(4);
  FrameEnd frame(transport(), options, [&](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (data.src_id == "flood" && FrameEnd::StatusIn(data).empty()) {
      gate.Wait();
      handled += data.body.size();
      return;
    }
    FrameEnd::Echo(self, data);
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  RawPeer raw(transport(), frame, "flood");
  ASSERT_TRUE(raw.connected());
  const std::string one = FrameBytes(FrameType::kNotify, MessageBytes(std::string(100'000, 'f')));
  Flood flood(raw, one);
  const std::size_t taken = flood.Until([&] { return Names(log, "MayReadMore", "flood"); });
  EXPECT_LT(taken, kMiB + kSlack);
  EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
  EXPECT_EQ(handled, 0u);
  // When they have been worked on, it is read on: not one was lost.
  gate.Open();
  const std::size_t whole = taken / one.size();
  EXPECT_TRUE(WaitFor([&] { return handled >= whole * 100'000; })) << handled;
  EXPECT_EQ(frame.StatusesOf("flood"), std::vector<std::string>{"connected"});
}

// A record that is kept counts, too, as long as its lease does.
TEST_P(Pressure, KeptRecordsCountAgainstTheirSender) {
  lpc::Options options;
  options.max_inbound_bytes = kMiB;
  LogCapture log(4);
  std::mutex mutex;
  std::vector<tag_LPCCallBackData> kept;
  std::atomic<int> arrived{0};
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (!FrameEnd::StatusIn(data).empty()) return;
    ++arrived;
    const std::lock_guard lock(mutex);
    kept.push_back(data);
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "flood");
  ASSERT_TRUE(raw.connected());
  const std::string one = FrameBytes(FrameType::kNotify, MessageBytes(std::string(100'000, 'f')));
  Flood flood(raw, one);
  const std::size_t taken = flood.Until([&] { return Names(log, "MayReadMore", "flood"); });
  EXPECT_LT(taken, kMiB + kSlack);
  const int before = arrived;
  {
    const std::lock_guard lock(mutex);
    kept.clear();
  }
  flood.Until([&] { return arrived > before; });
  EXPECT_GT(arrived, before) << "it is read on";
  frame.Stop();
}

// Params are costly in memory and cheap on the wire.
TEST_P(Pressure, ManySmallParamsCountForWhatTheyCost) {
  lpc::Options options;
  options.max_inbound_bytes = 4 * kMiB;
  Gate gate;
  LogCapture log(4);
  std::atomic<int> arrived{0};
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (!FrameEnd::StatusIn(data).empty()) return;
    ++arrived;
    gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "flood");
  ASSERT_TRUE(raw.connected());
  LpcParams params;
  for (int i = 0; i < 4000; ++i) params[std::to_string(i)];
  const std::string one = FrameBytes(FrameType::kNotify, MessageBytes("", params));
  Flood flood(raw, one);
  const std::size_t taken = flood.Until([&] { return Names(log, "MayReadMore", "flood"); });
  // A node of a map has some hundred bytes: a dozen of these messages are as many as 4 MiB hold.
  EXPECT_LT(taken, 12 * one.size() + kSlack);
  gate.Open();
}

TEST_P(Pressure, AFloodIsReadOnWhileAnAnswerIsAwaitedFromItButNotWithoutEnd) {
  lpc::Options options;
  options.max_inbound_bytes = kMiB;
  Gate gate;
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (data.src_id == "flood" && FrameEnd::StatusIn(data).empty()) gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "flood");
  ASSERT_TRUE(raw.connected());
  int error = -1;
  std::thread asks([&] { error = frame.Ask("flood", "x"); });
  ASSERT_TRUE(raw.ReadUntil(FrameType::kRequest));
  const std::string one = FrameBytes(FrameType::kNotify, MessageBytes(std::string(100'000, 'f')));
  Flood flood(raw, one);
  const std::size_t taken = flood.Until([] { return false; });
  EXPECT_GT(taken, 3 * kMiB);
  EXPECT_LT(taken, 4 * kMiB + kSlack);
  asks.join();
  EXPECT_EQ(error, lpc::kPeerGone);
  gate.Open();
  EXPECT_TRUE(frame.WaitStatus("flood", "disconnected"));
  EXPECT_EQ(frame.statistics().cut_off, 1u);
}

TEST_P(Pressure, WhatACutOffPeerSentIsNotReadAnyMore) {
  lpc::Options options;
  options.max_inbound_bytes = kMiB;
  options.stall_ms = 100;
  Gate gate;
  LogCapture log(4);
  std::atomic<std::size_t> delivered{0};
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (!FrameEnd::StatusIn(data).empty()) return;
    ++delivered;
    gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "flood");
  ASSERT_TRUE(raw.connected());
  const std::string one = FrameBytes(FrameType::kNotify, MessageBytes(std::string(5'000, 'f')));
  Flood flood(raw, one);
  const std::size_t taken = flood.Until([&] { return Names(log, "MayReadMore", "flood"); });
  // It is cut off for taking nothing while the system still holds much of what it said.
  while (frame.Notify("flood", std::string(10'000, 'x')) == lpc::kOk) {
  }
  ASSERT_TRUE(WaitFor([&] { return frame.statistics().cut_off == 1; }));
  gate.Open();
  ASSERT_TRUE(frame.WaitStatus("flood", "disconnected"));
  EXPECT_TRUE(WaitFor([&] { return delivered >= kMiB / (one.size() + 1000); }));
  frame.Stop();
  EXPECT_LT(delivered, taken / one.size());
}

// A plugin that is slowed down, and one that is alive, may be the same.
TEST_P(Pressure, APeerThatIsNotReadFromKeepsItsId) {
  lpc::Options options;
  options.max_inbound_bytes = kMiB;
  options.ping_ms = 100;
  Gate gate;
  LogCapture log(4);
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data).empty()) gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd busy(transport(), "busy");
  ASSERT_TRUE(busy.Meet(frame));
  ASSERT_TRUE(WaitFor([&] {
    return !busy.client().Notify({"0", {}, std::string(100'000, 'f')}) || Names(log, "MayReadMore", "busy");
  }));
  RawPeer other(transport());
  ASSERT_TRUE(other.Write(HelloBytes("busy")));
  const auto reason = other.ReadReason();
  ASSERT_TRUE(reason);
  EXPECT_EQ(reason->code, lpc::kRefused);
  EXPECT_EQ(frame.StatusesOf("busy"), std::vector<std::string>{"connected"});
  gate.Open();
}

TEST_P(Pressure, PingsOfAPeerThatTakesNoPongsDoNotPileUp) {
  lpc::Options options;
  options.max_queue_bytes = kMiB;
  options.stall_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "pinging");
  ASSERT_TRUE(raw.connected());
  std::string pings;
  for (int i = 0; i < 1000; ++i) pings += FrameBytes(FrameType::kPing);
  Flood flood(raw, pings);
  const std::size_t taken = flood.Until([] { return false; });
  EXPECT_LT(taken, kMiB + kSlack);
  EXPECT_TRUE(frame.WaitStatus("pinging", "disconnected"));
  EXPECT_EQ(frame.statistics().cut_off, 1u);
}

// Each frame with its header apart from its payload, so that the payloads are read to their places.
TEST_P(Pressure, IncompleteMessagesAreBoundedHoweverTheyArrive) {
  lpc::Options options;
  options.max_message_bytes = 2 * kMiB;
  options.max_queue_bytes = kMiB;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "hoard");
  ASSERT_TRUE(raw.connected());
  std::string prefix(lpc::wire::kPrefixSize, '\0');
  lpc::wire::ByteWriter writer(prefix.data());
  const std::string meta = MessageBytes("").substr(lpc::wire::kPrefixSize);
  writer.Number(static_cast<std::uint32_t>(meta.size()));
  writer.Number(std::uint32_t{1'900'000});
  const std::string part(500'000, 'h');
  std::size_t sent = 0;
  bool open = true;
  std::uint64_t pong = 0;
  // A pong shows that everything before it has been read.
  const auto write = [&](const std::string& bytes) {
    open = open && raw.Write(bytes);
    sent += bytes.size();
  };
  const auto all_read = [&] {
    open = open && raw.Write(FrameBytes(FrameType::kPing)) && raw.ReadUntil(FrameType::kPong).has_value();
    ++pong;
  };
  for (std::uint16_t stream = 1; open && stream < 50; ++stream) {
    const std::string begin = FrameBytes(FrameType::kNotify, prefix + meta, 0, lpc::wire::kFlagMore, stream);
    const std::string chunk = FrameBytes(FrameType::kChunk, part, 0, lpc::wire::kFlagMore, stream);
    write(begin);
    for (int i = 0; open && i < 3; ++i) {
      all_read();
      write(chunk.substr(0, lpc::wire::kHeaderSize));
      // Nothing tells when these 16 bytes were read; most of the time it is before the rest is there.
      WaitFor([] { return false; }, std::chrono::milliseconds(2));
      write(chunk.substr(lpc::wire::kHeaderSize));
    }
  }
  EXPECT_FALSE(open);
  EXPECT_LT(sent, 2 * options.max_message_bytes + options.max_queue_bytes + 2 * kMiB);
  EXPECT_TRUE(frame.WaitStatus("hoard", "disconnected"));
}

// Several messages of a size that each is allowed to have, on their way at the same time.
TEST_P(Pressure, LargeMessagesThatShareTheWireAreNotTakenForAHoard) {
  lpc::Options options;
  options.max_message_bytes = 2 * kMiB;
  Gate gate;
  std::atomic<int> arrived{0};
  FrameEnd frame(transport(), options, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data).empty()) ++arrived;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  constexpr int kThreads = 8;
  constexpr int kEach = 4;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        EXPECT_TRUE(plugin.client().Notify({"0", {}, std::string(1'900'000, 'l')}));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(WaitFor([&] { return arrived == kThreads * kEach; }, std::chrono::milliseconds(kLong)))
      << arrived;
  EXPECT_EQ(frame.StatusesOf("alpha"), std::vector<std::string>{"connected"});
}

TEST_P(Pressure, NobodyLooksWhenNothingHappens) {
  WrappedTransport wrapped(transport());
  FrameEnd frame(wrapped);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(wrapped, "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_EQ(plugin.Ask("x"), lpc::kOk);
  RawPeer silent(transport(), frame, "silent");
  ASSERT_TRUE(silent.connected());
  const auto quiet = [&] {
    const std::uint64_t before = wrapped.truth.waits;
    return !WaitFor([&] { return wrapped.truth.waits != before; }, std::chrono::milliseconds(300));
  };
  // What the traffic above left to look at is looked at, then no thread returns from its wait any more.
  EXPECT_TRUE(WaitFor(quiet, std::chrono::milliseconds(kLong)));
  EXPECT_TRUE(quiet());
}

}  // namespace
}  // namespace tolm::test
