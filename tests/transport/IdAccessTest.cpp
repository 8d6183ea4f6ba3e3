// Ids that try tricks, and ids that several want at a time.

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "support/Rows.h"
#include "support/Wait.h"
#include "wire/Frame.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using Strings = std::vector<std::string>;

/// "admitted", or what the frame says instead.
std::string AnswerTo(RawPeer& peer, const std::string& id) {
  const auto answer = peer.Shake(id);
  if (!answer) return "nothing";
  if (answer->type() == FrameType::kWelcome) return "admitted";
  return answer->type() == FrameType::kRefuse ? answer->notice().reason : "another frame";
}

constexpr char kNotPossible[] = "its id is empty, reserved, too long or holds control characters";
constexpr char kAdmitted[] = "admitted";

TEST_P(Connecting, IdsThatTryTricksGetNoMoreThanOthers) {
  Rows rows("id");
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  const struct {
    const char* what;
    std::string id;
    std::string answer;
  } kIds[] = {
      {"the frame's own", "0", kNotPossible},
      {"nothing", "", kNotPossible},
      {"256 bytes", std::string(256, 'a'), kNotPossible},
      {"1000 bytes", std::string(1000, 'a'), kNotPossible},
      {"a NUL", std::string(1, '\0'), kNotPossible},
      {"the frame's own and a NUL", std::string("0\0", 2), kNotPossible},
      {"a NUL within", std::string("a\0b", 3), kNotPossible},
      {"a line feed", "a\nb", kNotPossible},
      {"a carriage return at the end", "a\r", kNotPossible},
      {"a tab", "a\tb", kNotPossible},
      {"an escape sequence", "a\x1B[31m", kNotPossible},
      {"a backspace", "a\b", kNotPossible},
      {"a DEL", "a\x7F", kNotPossible},
      {"255 bytes", std::string(255, 'a'), kAdmitted},
      {"the frame's own, twice", "00", kAdmitted},
      {"the frame's own and a blank", "0 ", kAdmitted},
      {"a blank", " ", kAdmitted},
      // The frame uses ids for no path; the guard refuses to start a plugin of such a name.
      {"a path", "../x", kAdmitted},
      {"the root", "/", kAdmitted},
      {"quotes", "a\"b\\c", kAdmitted},
      {"a format", "%s%n", kAdmitted},
      {"UTF-8", "K\xC3\xBC\x63he", kAdmitted},
      {"bytes that are no UTF-8", "\xFF\xFE", kAdmitted},
      {"a sequence that is cut off", "a\xC3", kAdmitted},
  };
  for (const auto& row : kIds) {
    RawPeer peer(transport());
    rows.Expect(row.answer, AnswerTo(peer, row.id), row.what);
    if (row.answer != kAdmitted) {
      rows.Expect(true, peer.WaitEnd(), std::string(row.what) + ", the end");
      rows.Expect(Strings{}, frame.StatusesOf(row.id), std::string(row.what) + ", the host");
    } else {
      EXPECT_TRUE(frame.WaitStatus(row.id, "connected")) << row.what;
      rows.Expect(Strings{"connected"}, frame.StatusesOf(row.id), std::string(row.what) + ", the host");
    }
  }
}

TEST_P(Connecting, OfTwentyThatWantAnIdAtOnceOneHasIt) {
  Rows rows("id");
  lpc::Options options;
  options.ping_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  for (int round = 0; round < 5; ++round) {
    constexpr int kCount = 20;
    const std::string id = "round " + std::to_string(round);
    const std::uint64_t refused_before = frame.statistics().refused;
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (int i = 0; i < kCount; ++i) peers.push_back(std::make_unique<RawPeer>(transport()));
    // All ask before anybody listens to the answers; whoever holds the id answers for its life.
    for (const auto& peer : peers) ASSERT_TRUE(peer->Write(HelloBytes(id)));
    std::vector<std::string> answers(kCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < kCount; ++i) {
      threads.emplace_back([&, i] {
        RawPeer& peer = *peers[static_cast<std::size_t>(i)];
        std::string& answer = answers[static_cast<std::size_t>(i)];
        while (const auto got = peer.Read()) {
          if (got->type() == FrameType::kWelcome) answer = kAdmitted;
          if (got->type() == FrameType::kRefuse) answer = got->notice().reason;
          if (got->type() == FrameType::kPing) peer.Write(FrameBytes(FrameType::kPong));
          if (got->type() == FrameType::kGoodbye) break;
        }
      });
    }
    EXPECT_TRUE(WaitFor([&] { return frame.statistics().refused == refused_before + kCount - 1; }));
    // The holder reads on until the frame says goodbye to it.
    PluginEnd late(transport(), id);
    const auto failed = late.WaitEvent("failed");
    rows.Expect(true, failed && failed->error == lpc::kRefused, id + ", one that comes later");
    late.Stop();
    rows.Expect(Strings{"connected"}, frame.StatusesOf(id), id + ", the host");
    for (const auto& peer : peers) peer->stream().Shutdown();
    for (std::thread& thread : threads) thread.join();
    rows.Expect(std::ptrdiff_t{1}, std::count(answers.begin(), answers.end(), kAdmitted), id + ", winners");
    rows.Expect(std::ptrdiff_t{kCount - 1},
                std::count(answers.begin(), answers.end(), "the id [" + id + "] is in use"), id + ", losers");
    EXPECT_TRUE(frame.WaitStatus(id, "disconnected"));
  }
}

TEST_P(Connecting, AnIdIsFreeAsSoonAsItsHolderHasGone) {
  Rows rows("id");
  lpc::Options options;
  options.ping_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  // However it goes: with a word, without one, or cut off for what it sends.
  const struct {
    const char* what;
    void (*go)(RawPeer&);
  } kEnds[] = {
      {"says goodbye",
       [](RawPeer& peer) {
         peer.Write(FrameBytes(FrameType::kGoodbye, {"\0\0\0\0", 4}));
       }},
      {"is gone", [](RawPeer& peer) { peer.Close(); }},
      {"shuts its stream", [](RawPeer& peer) { peer.stream().Shutdown(); }},
      {"breaks the rules", [](RawPeer& peer) { peer.Write(HelloBytes("again")); }},
  };
  Strings expected;
  for (const auto& row : kEnds) {
    RawPeer holder(transport(), frame, "alpha");
    rows.Expect(true, holder.connected(), std::string(row.what) + ", the holder");
    RawPeer waiting(transport());
    ASSERT_TRUE(waiting.Write(HelloBytes("alpha")));
    // It is asked for its life, and goes instead.
    ASSERT_TRUE(holder.ReadUntil(FrameType::kPing));
    row.go(holder);
    const auto answer = waiting.Read();
    rows.Expect(true, answer && answer->type() == FrameType::kWelcome,
                std::string(row.what) + ", the next one");
    expected.insert(expected.end(), {"connected", "disconnected", "connected", "disconnected"});
    waiting.Close();
    EXPECT_TRUE(WaitFor([&] { return frame.StatusesOf("alpha").size() == expected.size(); }));
    rows.Expect(expected, frame.StatusesOf("alpha"), std::string(row.what) + ", the host");
  }
}

TEST_P(Connecting, AHolderThatComesBackFindsItsIdOfItsOwn) {
  Rows rows("id");
  lpc::Options options;
  options.ping_ms = 100;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  // Its first connection still stands, but nobody is behind it any more.
  RawPeer first(transport(), frame, "alpha");
  ASSERT_TRUE(first.connected());
  RawPeer second(transport());
  rows.Expect(std::string(kAdmitted), AnswerTo(second, "alpha"), "a holder that stalls");
  rows.Expect(true, first.ReadUntil(FrameType::kPing).has_value(), "it was asked");
  rows.Expect(true, first.WaitEnd(), "it was cut off");
  // Its late answer is no life of the second's.
  EXPECT_TRUE(frame.WaitStatus("alpha", "connected"));
  RawPeer third(transport());
  ASSERT_TRUE(third.Write(HelloBytes("alpha")));
  ASSERT_TRUE(second.ReadUntil(FrameType::kPing));
  ASSERT_TRUE(second.Write(FrameBytes(FrameType::kPong)));
  const auto reason = third.ReadReason();
  rows.Expect(true, reason && reason->code == lpc::kRefused, "one that answers keeps it");
  EXPECT_TRUE(WaitFor([&] { return frame.StatusesOf("alpha").size() == 3; }));
  rows.Expect(Strings{"connected", "disconnected", "connected"}, frame.StatusesOf("alpha"), "the host");
}

}  // namespace
}  // namespace tolm::test
