// Ends: of connections, of the frame, of the plugin; from outside and from inside of a callback.

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FrameEnd.h"
#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "WrappedTransport.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;

TEST_P(Stopping, APeerThatGoesFailsItsWaitersAtOnce) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  auto raw = std::make_unique<RawPeer>(transport(), frame, "going");
  ASSERT_TRUE(raw->connected());
  constexpr int kWaiters = 5;
  std::atomic<int> gone{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      if (frame.Ask("going", "x", nullptr, 10 * kLong) == lpc::kPeerGone) ++gone;
    });
  }
  for (int i = 0; i < kWaiters; ++i) ASSERT_TRUE(raw->ReadUntil(FrameType::kRequest));
  raw.reset();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(gone, kWaiters);
  ASSERT_TRUE(frame.WaitStatus("going", "disconnected"));
  EXPECT_TRUE(WaitFor([&] { return frame.Ask("going", "x") == lpc::kNoSuchPeer; }));
  EXPECT_EQ(frame.statistics().cut_off, 0u);
}

TEST_P(Stopping, APeerIsGoneForWhoIsToldOfItsEnd) {
  std::atomic<int> error{-1};
  FrameEnd frame(transport(), {}, [&error](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data) == "disconnected") error = self.Ask(data.src_id, "x");
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  { RawPeer raw(transport(), frame, "going"); }
  ASSERT_TRUE(WaitFor([&] { return error >= 0; }));
  EXPECT_EQ(error, lpc::kNoSuchPeer);
}

TEST_P(Stopping, WhatAPeerSentBeforeItWentStillArrives) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  std::string last;
  for (int i = 0; i < 20; ++i) last += FrameBytes(FrameType::kNotify, MessageBytes("last words"));
  {
    RawPeer raw(transport(), frame, "going");
    ASSERT_TRUE(raw.Write(last));
  }
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == 20; }));
  EXPECT_TRUE(frame.WaitStatus("going", "disconnected"));
}

TEST_P(Stopping, APluginThatStopsSaysGoodbyeAndItsMessagesArrive) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_TRUE(plugin.client().Notify({"0", {}, std::string(5u << 20, 'l')}));
  plugin.Stop();
  EXPECT_TRUE(frame.WaitStatus("alpha", "disconnected"));
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  EXPECT_FALSE(plugin.client().IsConnected());
  EXPECT_EQ(plugin.Ask("x"), lpc::kNotConnected);
  EXPECT_FALSE(plugin.client().WaitConnected(kLong)) << "there is nothing to wait for";
  EXPECT_EQ(frame.statistics().cut_off, 0u);
}

TEST_P(Stopping, AFrameThatStopsFailsThoseWhoWaitForIt) {
  FrameEnd frame(transport(), {}, [](FrameEnd&, const tag_LPCCallBackData&) {});
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  int error = -1;
  std::thread asks([&] { error = plugin.Ask("x", nullptr, 10 * kLong); });
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  frame.Stop();
  asks.join();
  EXPECT_EQ(error, lpc::kPeerGone);
  const auto end = plugin.WaitEvent("disconnected");
  ASSERT_TRUE(end);
  EXPECT_NE(end->reason.find("the frame stops"), std::string::npos) << end->reason;
}

TEST_P(Stopping, AFrameThatStopsFailsItsOwnWaiters) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd&, const tag_LPCCallBackData&) {});
  ASSERT_TRUE(plugin.Meet(frame));
  int error = -1;
  std::thread asks([&] { error = frame.Ask("alpha", "x", nullptr, 10 * kLong); });
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 1; }));
  frame.Stop();
  asks.join();
  EXPECT_EQ(error, lpc::kPeerGone);
}

// A reply goes to whoever has the asking peer's id by then; numbers of messages do not begin anew for that
// reason.
TEST_P(Stopping, AReplyToAPeerThatIsGoneIsNoneToItsSuccessor) {
  FrameEnd frame(transport(), {}, [](FrameEnd&, const tag_LPCCallBackData&) {});
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  {
    PluginEnd first(transport(), "alpha");
    ASSERT_TRUE(first.Meet(frame));
    EXPECT_EQ(first.Ask("of the first", nullptr, 1), lpc::kTimeOut);
    ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  }
  ASSERT_TRUE(frame.WaitStatus("alpha", "disconnected"));
  PluginEnd second(transport(), "alpha");
  ASSERT_TRUE(second.Meet(frame));
  std::string answer;
  std::thread asks([&] { EXPECT_EQ(second.Ask("of the second", &answer), lpc::kOk); });
  EXPECT_TRUE(WaitFor([&] { return frame.Messages().size() == 2; }));
  for (const tag_LPCCallBackData& request : frame.Messages())
    frame.Answer(request, "for that " + request.body);
  asks.join();
  EXPECT_EQ(answer, "for that of the second");
}

TEST_P(Stopping, AReplyToAFrameThatIsGoneIsNoneToItsSuccessor) {
  auto frame = std::make_unique<FrameEnd>(transport());
  ASSERT_EQ(frame->Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd&, const tag_LPCCallBackData&) {});
  ASSERT_TRUE(plugin.Meet(*frame));
  EXPECT_EQ(frame->Ask("alpha", "of the first", nullptr, 1), lpc::kTimeOut);
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 1; }));
  frame = std::make_unique<FrameEnd>(transport());
  ASSERT_TRUE(WaitFor([&] { return frame->Listen() == lpc::kOk; }));
  ASSERT_TRUE(frame->WaitStatus("alpha", "connected"));
  std::string answer;
  std::thread asks([&] { EXPECT_EQ(frame->Ask("alpha", "of the second", &answer), lpc::kOk); });
  EXPECT_TRUE(WaitFor([&] { return plugin.Messages().size() == 2; }));
  for (const PluginEnd::Message& request : plugin.Messages()) {
    plugin.Answer(request.data, "for that " + request.data.body);
  }
  asks.join();
  EXPECT_EQ(answer, "for that of the second");
}

TEST_P(Stopping, ThoseWhoComeWithoutAnEndHoldUpNeitherMessagesNorTheStop) {
  WrappedTransport wrapped(transport());
  const LogCapture quiet(5);
  FrameEnd frame(wrapped);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  wrapped.truth.strangers_come = true;
  const RawPeer first_of_them(transport());
  ASSERT_TRUE(WaitFor([&] { return wrapped.truth.strangers > 1000; }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
  frame.Stop();
  const std::uint64_t at_the_stop = wrapped.truth.strangers;
  EXPECT_TRUE(WaitFor([&] { return plugin.Ask("x") == lpc::kNotConnected; }));
  EXPECT_EQ(wrapped.truth.strangers, at_the_stop);
}

TEST_P(Stopping, WaitsThatAreToEndSoonEndThenAndNothingElseDoes) {
  lpc::Options options;
  options.stop_wait_ms = 20;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd&, const tag_LPCCallBackData&) {});
  ASSERT_TRUE(plugin.Meet(frame));
  // One of them reads for both.
  std::atomic<int> gone{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i) {
    waiters.emplace_back([&] {
      if (frame.Ask("alpha", "x", nullptr, 10 * kLong) == lpc::kPeerGone) ++gone;
    });
  }
  ASSERT_TRUE(WaitFor([&] { return plugin.Messages().size() == 2; }));
  EXPECT_EQ(gone, 0);
  frame.core().EndWaitsSoon();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(gone, 2);
  EXPECT_EQ(frame.Ask("alpha", "too late", nullptr, 10 * kLong), lpc::kPeerGone);
  EXPECT_EQ(frame.Notify("alpha", "told"), lpc::kOk);
  EXPECT_TRUE(WaitFor([&] { return plugin.Messages().size() == 3; }));
  EXPECT_EQ(plugin.Ask("x"), lpc::kOk) << "the other end may wait";
  // Also of a peer that comes now.
  PluginEnd newcomer(transport(), "beta");
  ASSERT_TRUE(newcomer.Meet(frame));
  EXPECT_EQ(frame.Ask("beta", "x", nullptr, 10 * kLong), lpc::kPeerGone);
}

TEST_P(Stopping, AnAnswerThatComesBeforeWaitsEndIsGiven) {
  lpc::Options options;
  options.stop_wait_ms = kLong;
  FrameEnd frame(transport(), options);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  frame.core().EndWaitsSoon();
  EXPECT_EQ(frame.Ask("alpha", "x"), lpc::kOk);
}

TEST_P(Stopping, APluginThatStopsFailsItsOwnWaiters) {
  FrameEnd frame(transport(), {}, [](FrameEnd&, const tag_LPCCallBackData&) {});
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  int error = -1;
  std::thread asks([&] { error = plugin.Ask("x", nullptr, 10 * kLong); });
  ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() == 1; }));
  plugin.Stop();
  asks.join();
  EXPECT_EQ(error, lpc::kPeerGone);
}

TEST_P(Stopping, StoppingWaitsForCallbacksAndNoneStartsAfterIt) {
  Gate gate;
  std::atomic<bool> stopped{false};
  std::atomic<bool> late{false};
  std::atomic<bool> finished{false};
  FrameEnd frame(transport(), {}, [&](FrameEnd&, const tag_LPCCallBackData& data) {
    if (stopped) late = true;
    if (data.body == "block") {
      gate.Wait();
      finished = true;
    }
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "busy");
  ASSERT_TRUE(raw.Write(FrameBytes(FrameType::kNotify, MessageBytes("block"))));
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  std::string more;
  for (int i = 0; i < 1000; ++i) more += FrameBytes(FrameType::kNotify, MessageBytes("more"));
  ASSERT_TRUE(raw.Write(more));
  std::atomic<bool> opening{false};
  std::thread stops([&] {
    frame.Stop();
    EXPECT_TRUE(opening) << "it did not wait";
    EXPECT_TRUE(finished);
    stopped = true;
  });
  // It has begun when its goodbye is there.
  ASSERT_TRUE(raw.ReadUntil(FrameType::kGoodbye));
  opening = true;
  gate.Open();
  stops.join();
  EXPECT_FALSE(late);
}

TEST_P(Stopping, SeveralThreadsMayStopAFrame) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&frame] { frame.Stop(); });
  for (auto& thread : threads) thread.join();
  frame.Stop();
  // The name is free again.
  FrameEnd next(transport());
  EXPECT_EQ(next.Listen(), lpc::kOk);
}

TEST_P(Stopping, AFrameThatNeverListenedMayBeStopped) {
  FrameEnd frame(transport());
  frame.Stop();
  frame.Stop();
}

TEST_P(Stopping, AFrameIsStoppedFromInsideItsCallback) {
  std::atomic<bool> returned{false};
  FrameEnd frame(transport(), {}, [&returned](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (data.body != "stop") return;
    self.Stop();
    returned = true;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_TRUE(plugin.client().Notify({"0", {}, "stop"}));
  EXPECT_TRUE(WaitFor([&] { return returned.load(); }));
  EXPECT_TRUE(plugin.WaitEvent("disconnected"));
  frame.Stop();
}

TEST_P(Stopping, SeveralCallbacksMayStopTheirFrameAtOnce) {
  std::atomic<int> inside{0};
  std::atomic<int> returned{0};
  FrameEnd frame(transport(), {}, [&](FrameEnd& self, const tag_LPCCallBackData& data) {
    if (data.body != "stop") return;
    ++inside;
    WaitFor([&] { return inside == 3; });
    self.Stop();
    ++returned;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer raw(transport(), frame, "raw");
  const std::string stop = FrameBytes(FrameType::kNotify, MessageBytes("stop"));
  ASSERT_TRUE(raw.Write(stop + stop + stop));
  ASSERT_TRUE(WaitFor([&] { return inside == 3; }));
  frame.Stop();
  EXPECT_TRUE(WaitFor([&] { return returned == 3; }));
}

TEST_P(Stopping, AFrameIsStoppedFromInsideTheConnectedEvent) {
  std::atomic<bool> returned{false};
  FrameEnd frame(transport(), {}, [&returned](FrameEnd& self, const tag_LPCCallBackData&) {
    self.Stop();
    returned = true;
  });
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  EXPECT_TRUE(WaitFor([&] { return returned.load(); }));
  frame.Stop();
}

TEST_P(Stopping, APluginIsStoppedFromInsideItsCallbacks) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  std::atomic<bool> returned{false};
  PluginEnd plugin(transport(), "alpha", [&returned](PluginEnd& self, const tag_LPCCallBackData&) {
    self.Stop();
    returned = true;
  });
  ASSERT_TRUE(plugin.Meet(frame));
  ASSERT_EQ(frame.Notify("alpha", "stop"), lpc::kOk);
  EXPECT_TRUE(WaitFor([&] { return returned.load(); }));
  EXPECT_TRUE(frame.WaitStatus("alpha", "disconnected"));

  std::atomic<bool> in_connected{false};
  lpcclient::CLpcClient* self = nullptr;
  std::atomic<bool> known{false};
  PluginEnd other(transport(), "beta", PluginEnd::Echo, [&](lpcclient::Settings& settings) {
    settings.on_connected = [&] {
      WaitFor([&] { return known.load(); });
      self->Stop();
      in_connected = true;
    };
  });
  self = &other.client();
  known = true;
  EXPECT_TRUE(WaitFor([&] { return in_connected.load(); }));
  EXPECT_TRUE(frame.WaitStatus("beta", "disconnected"));
}

TEST_P(Stopping, APluginIsDestroyedInsideItsCallback) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  std::unique_ptr<lpcclient::CLpcClient> client;
  std::atomic<bool> known{false};
  std::atomic<bool> returned{false};
  lpcclient::Settings settings;
  settings.id = "alpha";
  settings.endpoint = kEndpoint;
  settings.transport = &transport();
  settings.on_message = [&](tag_LPCCallBackData&&, const lpcclient::InboundInfo&) {
    WaitFor([&] { return known.load(); });
    client.reset();
    returned = true;
  };
  client = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  ASSERT_TRUE(client->Start());
  known = true;
  ASSERT_TRUE(frame.WaitStatus("alpha", "connected"));
  ASSERT_EQ(frame.Notify("alpha", "end"), lpc::kOk);
  EXPECT_TRUE(WaitFor([&] { return returned.load(); }));
  EXPECT_TRUE(frame.WaitStatus("alpha", "disconnected"));
}

TEST_P(Stopping, APluginThatNeverStartedMayBeStopped) {
  lpcclient::Settings settings;
  settings.id = "alpha";
  settings.endpoint = kEndpoint;
  settings.transport = &transport();
  lpcclient::CLpcClient client(settings);
  client.Stop();
  EXPECT_FALSE(client.Start()) << "once stopped it stays so";
  EXPECT_FALSE(client.WaitConnected(kLong));
  EXPECT_EQ(client.Send({"0", {}, "x"}), 0u);
  EXPECT_EQ(lpcclient::GetLPCLastError(), lpc::kNotConnected);
}

TEST_P(Stopping, APluginStartsOnce) {
  lpcclient::Settings settings;
  settings.id = "alpha";
  settings.endpoint = kEndpoint;
  settings.transport = &transport();
  lpcclient::CLpcClient client(settings);
  EXPECT_TRUE(client.Start());
  EXPECT_FALSE(client.Start());
}

TEST_P(Stopping, FramesStopWhilePluginsTalk) {
  std::vector<std::unique_ptr<PluginEnd>> plugins;
  for (int i = 0; i < 4; ++i)
    plugins.push_back(std::make_unique<PluginEnd>(transport(), std::to_string(i + 1)));
  std::atomic<bool> done{false};
  std::vector<std::thread> talkers;
  for (auto& plugin : plugins) {
    talkers.emplace_back([&done, p = plugin.get()] {
      while (!done) {
        if (p->Ask("question") == lpc::kNotConnected) p->client().WaitConnected(5);
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    FrameEnd frame(transport(), {}, [](FrameEnd& self, const tag_LPCCallBackData& data) {
      if (data.need_reply) self.Ask(data.src_id, "back");
      FrameEnd::Echo(self, data);
    });
    ASSERT_EQ(frame.Listen(), lpc::kOk);
    ASSERT_TRUE(WaitFor([&] { return frame.Messages().size() >= 5; }));
    frame.Stop();
  }
  done = true;
  for (auto& plugin : plugins) plugin->Stop();
  for (auto& talker : talkers) talker.join();
}

}  // namespace
}  // namespace tolm::test
