#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FrameScript.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;

constexpr int kRounds = 200;

class FrameConcurrency : public FrameTest {
 protected:
  FrameConcurrency() {
    // Formatting thousands of lines is not what is looked at here.
    log_.SetLevel(5);
  }

  /// Runs `work(thread, round)` on so many threads, kRounds times on each.
  static void OnThreads(std::vector<std::jthread>& threads, int count,
                        const std::function<void(int, int)>& work) {
    for (int thread = 0; thread < count; ++thread) {
      threads.emplace_back([thread, work] {
        for (int round = 0; round < kRounds; ++round) work(thread, round);
      });
    }
  }

  static std::string Url(int thread, int round) {
    return "/t" + std::to_string(thread) + "/r" + std::to_string(round) + "x";
  }
};

TEST_F(FrameConcurrency, EverythingThatManyThreadsSendArrives) {
  Start(Plugins({"A", "B"}));
  Serve("B", "/b");
  Ready("B");
  FromNowOn();
  std::atomic<std::size_t> sync_sends{0};
  std::atomic<std::size_t> requests{0};
  {
    std::vector<std::jthread> threads;
    OnThreads(threads, 2, [&](int, int) { transport_.Deliver(Message().From("A").Url("/host")); });
    OnThreads(threads, 2, [&](int, int) { transport_.Deliver(Message().From("A").Url("/b").WantsReply(1)); });
    OnThreads(threads, 1, [&](int, int) { transport_.Deliver(Message().From("A").Url("/b")); });
    OnThreads(threads, 1, [&](int, int) { transport_.Deliver(InitFinish("A")); });
    OnThreads(threads, 1, [&](int, int) { transport_.Deliver(Message().From("A").Push("tag")); });
    OnThreads(threads, 1, [&](int thread, int round) {
      transport_.Deliver(Registration("B", R"({"RegisterInfo":{"SupportUrlList":[{"Url":")" +
                                               Url(thread, round) +
                                               R"("}],"SupportHttpHeaderList":["X"]}})"));
    });
    OnThreads(threads, 2, [&](int, int) {
      int time_out = 0;
      EXPECT_TRUE(IsPluginURL(time_out, "/b"));
      RegisterUrl({"/host"});
      std::vector<std::string> headers;
      GetHttpHeaders(headers);
      LPCData response;
      LPCData data;
      data.url = "/b";
      if (SyncSend(response, data, 10)) ++sync_sends;
      std::uint64_t id = 0;
      if (AsyncSend(id, data)) ++requests;
    });
  }
  constexpr std::size_t kOne = kRounds;
  EXPECT_TRUE(WaitFor([&] {
    return host_.Count(kLpcMsgLpcData) == 2 * kOne && host_.Count(kLpcMsgPluginInited) == kOne &&
           host_.Count(kLpcMsgPush) == kOne && transport_.Replies().size() == 2 * kOne &&
           transport_.Notifications().size() == kOne;
  })) << host_.Count(kLpcMsgLpcData)
      << " " << host_.Count(kLpcMsgPluginInited) << " " << host_.Count(kLpcMsgPush) << " "
      << transport_.Replies().size() << " " << transport_.Notifications().size();
  EXPECT_EQ(sync_sends, 2 * kOne);
  EXPECT_EQ(requests, 2 * kOne);
  EXPECT_EQ(transport_.Requests().size(), 2 * kOne);
  EXPECT_EQ(transport_.WaitingSends().size(), 4 * kOne);
  int time_out = 0;
  EXPECT_TRUE(WaitFor([&] {
    int served = 0;
    for (int round = 0; round < kRounds; ++round) served += IsPluginURL(time_out, Url(0, round)) ? 1 : 0;
    return served == kRounds;
  }));
  std::vector<std::string> headers;
  GetHttpHeaders(headers);
  EXPECT_THAT(headers, ::testing::ElementsAre("X"));
}

TEST_F(FrameConcurrency, RegistrationsFromManyThreadsAllCount) {
  std::vector<std::jthread> threads;
  OnThreads(threads, 4, [&](int thread, int round) {
    Registry().PluginURLRegister(Registration(
        "P" + std::to_string(thread), R"({"RegisterInfo":{"SupportUrlList":[{"Url":")" + Url(thread, round) +
                                          R"("}],"SupportHttpHeaderList":["H)" + std::to_string(round % 7) +
                                          R"("]}})"));
  });
  OnThreads(threads, 2, [&](int thread, int round) {
    std::int32_t time_out = 5000;
    Registry().IsUrlFromPlugin(time_out, Url(thread, round));
    EXPECT_EQ(time_out, 5000);
  });
  threads.clear();
  for (int thread = 0; thread < 4; ++thread) {
    for (int round = 0; round < kRounds; ++round) {
      std::string id;
      EXPECT_TRUE(Registry().FindDstIdByUrl(id, Url(thread, round)));
      EXPECT_EQ(id, "P" + std::to_string(thread));
    }
  }
  std::vector<std::string> headers;
  Registry().GetHttpHeaders(headers);
  EXPECT_EQ(headers.size(), 7u);
}

TEST_F(FrameConcurrency, PluginsThatComeAndGoTogetherAreAllTold) {
  List(Plugins({"A", "B"}));
  RegisterHost();
  std::vector<std::jthread> threads;
  OnThreads(threads, 2, [&](int thread, int) {
    const std::string id = thread == 0 ? "A" : "B";
    Method(Connected(id));
    Method(InitFinish(id));
    Method(UninitFinish(id));
    Method(Disconnected(id));
  });
  OnThreads(threads, 1, [&](int, int round) { Registry().SetPluginInitState(round % 2 == 0, "C"); });
  OnThreads(threads, 1, [&](int, int) {
    Registry().GetPluginData();
    Registry().GetPluginInitStates();
    Registry().SetPluginData(Plugins({"A", "B"}));
  });
  threads.clear();
  constexpr std::size_t kOne = kRounds;
  EXPECT_EQ(host_.Count(kLpcMsgPluginConnected), 2 * kOne);
  EXPECT_EQ(host_.Count(kLpcMsgPluginDisconnected), 2 * kOne);
  EXPECT_EQ(host_.Count(kLpcMsgPluginInited), 2 * kOne + kOne / 2);
  EXPECT_EQ(host_.Count(kLpcMsgPluginUninited), kOne / 2);
  EXPECT_EQ(Journal::Count("guard.NotifyState"), 2 * kOne);
  EXPECT_TRUE(Registry().GetPluginInitState("A") && Registry().GetPluginInitState("B"));
}

TEST_F(FrameConcurrency, TrafficWhileTheFrameStopsAndStartsReachesNoHostThatIsGone) {
  std::atomic<bool> done{false};
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&, thread] {
      while (!done) {
        transport_.Deliver(Message().From("A").Url("/host"));
        transport_.Deliver(Message().From("A").Push("tag"));
        transport_.Deliver(thread == 0 ? Connected("A") : InitFinish("A"));
        LPCData data;
        data.url = "/b";
        std::uint64_t id = 0;
        AsyncSend(id, data);
      }
    });
  }
  for (int life = 0; life < 5; ++life) {
    ASSERT_EQ(Start(Plugins({"A"})), 0);
    Serve("B", "/b");
    const std::size_t before = host_.Count();
    EXPECT_TRUE(WaitFor([&] { return host_.Count() > before + 20; }));
    ASSERT_EQ(TolmLPCFrameUnInit(), 0);
    const std::size_t at_the_end = host_.Count();
    int looks = 0;
    WaitFor([&] { return ++looks == 20; });
    EXPECT_EQ(host_.Count(), at_the_end);
  }
  done = true;
}

TEST_F(FrameConcurrency, TheCallbackMayBeReplacedWhileMessagesArrive) {
  Start();
  Host other;
  std::vector<std::jthread> threads;
  OnThreads(threads, 2, [&](int, int) { transport_.Deliver(Message().From("A").Push("tag")); });
  OnThreads(threads, 1, [&](int, int round) {
    RegisterLpcMsgCallback(&Host::Receive, round % 2 == 0 ? &other : &host_);
  });
  threads.clear();
  EXPECT_EQ(host_.Count() + other.Count(), 2u * kRounds);
  RegisterHost();
}

}  // namespace
}  // namespace tolm::test
