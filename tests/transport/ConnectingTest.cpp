// How a peer comes and goes, what the frame is told of it, and how a plugin finds its frame again.

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "FrameEnd.h"
#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "WrappedTransport.h"
#include "support/LogCapture.h"
#include "support/OwnResources.h"
#include "support/Wait.h"
#include "wire/Frame.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using Strings = std::vector<std::string>;

TEST_P(Connecting, OneEventWhenAPeerComesAndOneWhenItGoes) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  {
    PluginEnd plugin(transport(), "alpha");
    ASSERT_TRUE(plugin.Meet(frame));
    EXPECT_EQ(frame.statistics().peers, 1u);
    EXPECT_EQ(frame.statistics().connections, 1u);
  }
  ASSERT_TRUE(frame.WaitStatus("alpha", "disconnected"));
  const auto records = frame.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].body,
            R"({"method":"connectionStatusChanged","status":"connected","componentID":"alpha"})");
  EXPECT_EQ(records[1].body,
            R"({"method":"connectionStatusChanged","status":"disconnected","componentID":"alpha"})");
  for (const auto& record : records) {
    EXPECT_EQ(record.src_id, "alpha");
    EXPECT_EQ(record.dst_id, "0");
    EXPECT_TRUE(record.params.empty());
    EXPECT_FALSE(record.is_reply);
    EXPECT_FALSE(record.need_reply);
  }
  EXPECT_TRUE(WaitFor([&] { return frame.statistics().peers == 0; }));
}

TEST_P(Connecting, AnIdIsEscapedInTheEvents) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  const std::string id = R"(a"b\c)";
  PluginEnd plugin(transport(), id);
  ASSERT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(frame.Records()[0].src_id, id);
  EXPECT_EQ(frame.Records()[0].body,
            R"({"method":"connectionStatusChanged","status":"connected","componentID":"a\"b\\c"})");
}

TEST_P(Connecting, TheConnectedEventReturnsBeforeAnythingElseOfThePeer) {
  Gate gate;
  FrameEnd frame(transport(), {}, [&gate](FrameEnd&, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data) == "connected" && data.src_id == "hasty") gate.Wait();
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer hasty(transport());
  ASSERT_TRUE(hasty.connected());
  // Everything in one go, without waiting for the welcome, and gone at once.
  std::string bytes = HelloBytes("hasty");
  for (int i = 0; i < 10; ++i) bytes += FrameBytes(FrameType::kNotify, MessageBytes(std::to_string(i)));
  ASSERT_TRUE(hasty.Write(bytes));
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  hasty.Close();
  // Another peer comes, is served, and goes meanwhile; that much time the first one's messages had.
  {
    PluginEnd plugin(transport(), "alpha");
    ASSERT_TRUE(plugin.Meet(frame));
  }
  ASSERT_TRUE(frame.WaitStatus("alpha", "disconnected"));
  EXPECT_EQ(frame.Messages().size(), 0u);
  EXPECT_EQ(frame.StatusesOf("hasty"), Strings{"connected"});
  gate.Open();
  ASSERT_TRUE(frame.WaitStatus("hasty", "disconnected"));
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == 10; }));
  EXPECT_EQ(frame.StatusesOf("hasty"), (Strings{"connected", "disconnected"}));
}

// A plugin that crashed is back before the frame has dealt with its end: in the frame's eyes it still
// goes first and comes then.
TEST_P(Connecting, AnIdIsNotConnectedAgainBeforeItsEndIsDealtWith) {
  Gate gate;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  FrameEnd frame(transport(), {}, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data).empty()) return;
    if (++inside > 1) overlapped = true;
    if (FrameEnd::StatusIn(data) == "disconnected") gate.Wait();
    --inside;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  auto first = std::make_unique<RawPeer>(transport(), frame, "alpha");
  ASSERT_TRUE(first->connected());
  first.reset();
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kNoSuchPeer);
  PluginEnd second(transport(), "alpha");
  EXPECT_FALSE(second.client().WaitConnected(100));
  EXPECT_EQ(frame.StatusesOf("alpha"), (Strings{"connected", "disconnected"}));
  gate.Open();
  ASSERT_TRUE(second.Meet(frame));
  EXPECT_EQ(frame.StatusesOf("alpha"), (Strings{"connected", "disconnected", "connected"}));
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
}

TEST_P(Connecting, APeerThatComesAndGoesAllTheTimeAlternates) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  constexpr std::size_t kTimes = 100;
  for (std::size_t i = 0; i < kTimes; ++i) {
    // The id may still be the last connection's for a moment.
    ASSERT_TRUE(WaitFor([&] {
      RawPeer peer(transport());
      const auto answer = peer.Shake("alpha");
      return answer && answer->type() == FrameType::kWelcome;
    }));
  }
  ASSERT_TRUE(WaitFor([&] { return frame.StatusesOf("alpha").size() == 2 * kTimes; }));
  const auto statuses = frame.StatusesOf("alpha");
  for (std::size_t i = 0; i < statuses.size(); ++i) {
    ASSERT_EQ(statuses[i], i % 2 == 0 ? "connected" : "disconnected") << i;
  }
}

TEST_P(Connecting, APluginThatWasThereFirstConnectsLater) {
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.WaitEvent("failed"));
  EXPECT_EQ(plugin.Events()[0].error, lpc::kNoSuchPeer);
  EXPECT_FALSE(plugin.Events()[0].reason.empty());
  EXPECT_EQ(plugin.Ask("x"), lpc::kNotConnected);
  EXPECT_FALSE(plugin.client().IsConnected());
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  ASSERT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
}

TEST_P(Connecting, APluginComesBackWhenItsFrameDoes) {
  PluginEnd plugin(transport(), "alpha");
  for (int i = 0; i < 3; ++i) {
    FrameEnd frame(transport());
    ASSERT_EQ(frame.Listen(), lpc::kOk);
    ASSERT_TRUE(plugin.Meet(frame));
    EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
    frame.Stop();
    ASSERT_TRUE(WaitFor([&] { return !plugin.client().IsConnected(); }));
  }
  ASSERT_TRUE(WaitFor([&] {
    const auto events = plugin.Events();
    return std::count_if(events.begin(), events.end(),
                         [](const auto& e) { return e.what == "disconnected"; }) == 3;
  }));
  // The two take turns, whatever failed in between.
  std::string last = "disconnected";
  for (const auto& event : plugin.Events()) {
    if (event.what == "failed") continue;
    EXPECT_NE(event.what, last);
    last = event.what;
    if (event.what == "disconnected") {
      EXPECT_EQ(event.error, lpc::kPeerGone) << event.reason;
    }
  }
  EXPECT_EQ(plugin.client().GetStatistics().connections, 3u);
}

TEST_P(Connecting, TheNextConnectionIsLookedForWhenTheEndOfTheOneBeforeWasTold) {
  WrappedTransport wrapped(transport());
  std::atomic<bool> too_early{false};
  auto frame = std::make_unique<FrameEnd>(transport());
  ASSERT_EQ(frame->Listen(), lpc::kOk);
  const auto adjust = [&](lpcclient::Settings& settings) {
    settings.reconnect_first_ms = 1;
    settings.reconnect_cap_ms = 1;
    // Long enough for many attempts.
    for (auto* const tells : {&settings.on_disconnected, &settings.on_connect_failed}) {
      *tells = [&, told = *tells](int error, const std::string& reason) {
        const int connects = wrapped.truth.connects;
        const std::chrono::milliseconds while_it_tells(100);
        if (WaitFor([&] { return wrapped.truth.connects != connects; }, while_it_tells)) too_early = true;
        told(error, reason);
      };
    }
  };
  PluginEnd plugin(wrapped, "alpha", PluginEnd::Echo, adjust);
  ASSERT_TRUE(plugin.Meet(*frame));
  frame.reset();
  ASSERT_TRUE(plugin.WaitEvent("failed"));
  EXPECT_FALSE(too_early);
  frame = std::make_unique<FrameEnd>(transport());
  ASSERT_EQ(frame->Listen(), lpc::kOk);
  EXPECT_TRUE(plugin.Meet(*frame)) << "they go on";
}

TEST_P(Connecting, ThePausesBetweenAttemptsGrowUpToTheCap) {
  PluginEnd plugin(transport(), "alpha", PluginEnd::Echo, [](lpcclient::Settings& settings) {
    settings.reconnect_first_ms = 20;
    settings.reconnect_cap_ms = 80;
  });
  ASSERT_TRUE(WaitFor([&] { return plugin.Events().size() >= 7; }));
  const auto events = plugin.Events();
  // A quarter less for the jitter, and something for the call of the callback.
  const int at_least[] = {13, 27, 55, 55, 55};
  for (std::size_t i = 0; i < std::size(at_least); ++i) {
    const auto pause =
        std::chrono::duration_cast<std::chrono::milliseconds>(events[i + 2].when - events[i].when);
    // Two pauses together: a late callback makes one of its neighbours seem short.
    const int both = at_least[i] + at_least[std::min(i + 1, std::size(at_least) - 1)];
    EXPECT_GE(pause.count(), both / 2) << i;
  }
}

TEST_P(Connecting, AFrameOfAnotherUserIsNotTrusted) {
  WrappedTransport wrapped(transport());
  wrapped.truth.connected_same_user = false;
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(wrapped, "alpha");
  const auto failed = plugin.WaitEvent("failed");
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->error, lpc::kRefused);
  EXPECT_NE(failed->reason.find("another user"), std::string::npos) << failed->reason;
  EXPECT_TRUE(frame.Records().empty()) << "it has not even said its id";
}

TEST_P(Connecting, APeerOfAnotherUserIsRefusedWithoutAWord) {
  WrappedTransport wrapped(transport());
  wrapped.truth.accepted_same_user = false;
  FrameEnd frame(wrapped);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport());
  EXPECT_FALSE(raw.Read()) << "a stranger is told nothing";
  EXPECT_TRUE(raw.WaitEnd());
  EXPECT_EQ(frame.statistics().refused, 1u);
  EXPECT_TRUE(frame.Records().empty());
}

TEST_P(Connecting, AShortageAtAcceptPassesAndIsSaidOnce) {
  WrappedTransport wrapped(transport());
  wrapped.truth.accept_shortages = 3;
  LogCapture log(5);
  FrameEnd frame(wrapped);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  EXPECT_TRUE(plugin.Meet(frame));
  EXPECT_EQ(wrapped.truth.accept_shortages, 0);
  EXPECT_EQ(log.LinesOf("PauseAccepting").size(), 1u);
  ASSERT_TRUE(WaitFor([&] { return wrapped.truth.all_accepted.load(); })) << "the shortage is over then";
  wrapped.truth.accept_shortages = 2;
  PluginEnd later(transport(), "beta");
  EXPECT_TRUE(later.Meet(frame));
  EXPECT_EQ(log.LinesOf("PauseAccepting").size(), 2u) << "the first one was over";
}

TEST_P(Connecting, AListenerThatDiesIsReportedAndItsPeersStay) {
  WrappedTransport wrapped(transport());
  LogCapture log(5);
  FrameEnd frame(wrapped);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  wrapped.truth.accept_dead = true;
  RawPeer knocks(transport());
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  const auto event = frame.Messages()[0];
  EXPECT_EQ(event.body, R"({"method":"serverListenFailed","errorCode":"77","errorModule":"TolmLPCServer"})");
  EXPECT_FALSE(log.LinesOf("ListenFailed").empty());
  EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
}

TEST_P(Connecting, SixtyFourPluginsComeAtOnce) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  std::vector<std::unique_ptr<PluginEnd>> plugins;
  for (int i = 0; i < 64; ++i) {
    plugins.push_back(std::make_unique<PluginEnd>(transport(), "plugin " + std::to_string(i)));
  }
  for (auto& plugin : plugins) ASSERT_TRUE(plugin->Meet(frame)) << plugin->id();
  for (auto& plugin : plugins) {
    std::string answer;
    EXPECT_EQ(frame.Ask(plugin->id(), plugin->id(), &answer), lpc::kOk);
    EXPECT_EQ(answer, plugin->id());
  }
  EXPECT_EQ(frame.statistics().peers, 64u);
  plugins.clear();
  EXPECT_TRUE(WaitFor([&] { return frame.statistics().peers == 0; }));
}

TEST_P(Connecting, AThousandConnectionsLeaveNothingBehind) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  const auto come_and_go = [&](int i) {
    RawPeer peer(transport());
    const auto answer = peer.Shake("peer " + std::to_string(i));
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->type(), FrameType::kWelcome);
  };
  come_and_go(-1);
  ASSERT_TRUE(WaitFor([&] { return frame.Records().size() == 2; }));
  const long descriptors = OpenDescriptors();
  for (int i = 0; i < 1000; ++i) come_and_go(i);
  ASSERT_TRUE(WaitFor([&] { return frame.Records().size() == 2002; }, std::chrono::milliseconds(kLong)));
  EXPECT_EQ(frame.statistics().connections, 1001u);
  EXPECT_TRUE(WaitFor([&] { return frame.statistics().peers == 0; }));
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= descriptors + kDescriptorsOfLocks; }))
      << OpenDescriptors() << " instead of " << descriptors;
}

TEST_P(Connecting, EndsThatAreMadeAndDestroyedLeaveNothingBehind) {
  const auto once = [&] {
    FrameEnd frame(transport());
    ASSERT_EQ(frame.Listen(), lpc::kOk);
    PluginEnd plugin(transport(), "alpha");
    ASSERT_TRUE(plugin.Meet(frame));
    ASSERT_EQ(plugin.Ask("x"), lpc::kOk);
  };
  once();
  const long descriptors = OpenDescriptors();
  const long threads = RunningThreads();
  for (int i = 0; i < 30; ++i) once();
  EXPECT_LE(OpenDescriptors(), descriptors + kDescriptorsOfLocks);
  EXPECT_TRUE(WaitFor([&] { return RunningThreads() == threads; }))
      << RunningThreads() << " instead of " << threads;
}

}  // namespace
}  // namespace tolm::test
