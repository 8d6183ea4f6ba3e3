#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FrameScript.h"
#include "InitLogical.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;

/// What is under way while the frame stops, and between two lives.
class FrameStop : public FrameTest {
 protected:
  static Tolm::Base::CMessageLoopDyThreadPool& HostPool() {
    return Tolm::Base::CSingleton<CMessageLoopForMainFrameWork>::Instance();
  }

  /// The host stops the frame while it is called with `message`.
  void ExpectThatTheHostCanStopDuring(const Message& message) {
    std::atomic<int> result{-1000};
    host_.answer = [&](const FrameCallBackData&) {
      result = TolmLPCFrameUnInit();
      return true;
    };
    transport_.Deliver(message);
    EXPECT_TRUE(WaitFor([&] { return result == 0; })) << result;
    EXPECT_TRUE(WaitFor([] { return ThreadsOfPools() == std::vector<std::size_t>(4, 0); }));
    EXPECT_EQ(Journal::Count("lpc.Uninit"), 1u);
  }
};

TEST_F(FrameStop, AStopWaitsForACallbackThatRuns) {
  Start();
  Gate gate;
  host_.answer = [&](const FrameCallBackData&) {
    gate.Wait();
    return true;
  };
  transport_.Deliver(Message().From("A").Url("/x"));
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  std::atomic<bool> stopped{false};
  std::jthread stop([&] {
    TolmLPCFrameUnInit();
    stopped = true;
  });
  ASSERT_TRUE(WaitFor([&] { return Journal::Count("pool.Stop MainFrameWork false") == 1; }));
  EXPECT_FALSE(stopped);
  EXPECT_EQ(Journal::Count("lpc.StopListen"), 0u);
  gate.Open();
  EXPECT_TRUE(WaitFor([&] { return stopped.load(); }));
}

TEST_F(FrameStop, TheHostMayStopTheFrameFromAPush) {
  Start();
  ExpectThatTheHostCanStopDuring(Message().From("A").Push("tag"));
}

TEST_F(FrameStop, TheHostMayStopTheFrameFromAUrlMessage) {
  Start();
  ExpectThatTheHostCanStopDuring(Message().From("A").Url("/x"));
}

TEST_F(FrameStop, TheHostMayStopTheFrameFromAPluginEvent) {
  Start();
  ExpectThatTheHostCanStopDuring(InitFinish("A"));
}

TEST_F(FrameStop, TwoCallbacksOfDifferentKindsMayStopTheFrameAtOnce) {
  Start();
  std::atomic<int> inside{0};
  std::atomic<int> stopped{0};
  host_.answer = [&](const FrameCallBackData&) {
    ++inside;
    WaitFor([&] { return inside == 2; });
    if (TolmLPCFrameUnInit() == kFrameOk) ++stopped;
    return true;
  };
  transport_.Deliver(Message().From("A").Url("/x"));
  transport_.Deliver(InitFinish("A"));
  EXPECT_TRUE(WaitFor([&] { return stopped == 2; }));
  EXPECT_TRUE(WaitFor([] { return ThreadsOfPools() == std::vector<std::size_t>(4, 0); }));
  EXPECT_EQ(Journal::Count("lpc.Uninit"), 1u);
  EXPECT_EQ(Journal::Count("log TolmLPCFrameUnInit End"), 2u);
}

TEST_F(FrameStop, StopsFromManyThreadsAllSucceed) {
  Start(Plugins({"A"}));
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([] { EXPECT_EQ(TolmLPCFrameUnInit(), 0); });
  }
  EXPECT_THAT(ThreadsOfPools(), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(Journal::Count("log TolmLPCFrameUnInit End"), 4u);
}

TEST_F(FrameStop, NoCallbackComesOnceTheStopHasReturned) {
  Start();
  TolmLPCFrameUnInit();
  FromNowOn();
  EXPECT_FALSE(transport_.Deliver(Message().From("A").Push("tag")));
  // A transport thread that was late would still hold the function.
  EXPECT_TRUE(CLpcServerManager::LPCServerCallback(Message().From("A").Push("tag"), nullptr));
  EXPECT_TRUE(CLpcServerManager::LPCServerCallback(Message().From("A").Url("/x"), nullptr));
  EXPECT_TRUE(CLpcServerManager::LPCServerCallback(InitFinish("A"), nullptr));
  EXPECT_EQ(host_.Count(), 0u);
  EXPECT_THAT(ThreadsOfPools(), ElementsAre(0, 0, 0, 0));
}

TEST_F(FrameStop, WhileTheTransportIsTakenDownPushesEndAtTheHostOnlyUntilTheCallbackIsRemoved) {
  Start();
  guard_.uninit_manager = [&] { transport_.Deliver(Message().From("before").Push("tag")); };
  transport_.stop_listen = [&] {
    CLpcServerManager::LPCServerCallback(Message().From("after").Push("tag"), nullptr);
    return true;
  };
  TolmLPCFrameUnInit();
  EXPECT_EQ(host_.Only().lpc_data.src_id, "before");
}

TEST_F(FrameStop, UrlsOfAPluginThatComesBackInTheMiddleAreForgotten) {
  Start();
  int time_out = 0;
  transport_.end_waits_soon = [&] {
    Registry().PluginURLRegister(Registration("A", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/x"}]}})"));
    EXPECT_TRUE(IsPluginURL(time_out, "/x"));
    return true;
  };
  TolmLPCFrameUnInit();
  EXPECT_FALSE(IsPluginURL(time_out, "/x"));
}

TEST_F(FrameStop, MessagesThatWaitInAPoolAtTheStopAreNotDelivered) {
  Start();
  Gate gate;
  host_.answer = [&](const FrameCallBackData&) {
    gate.Wait();
    return true;
  };
  for (int i = 0; i < 40; ++i) transport_.Deliver(Message().From("A").Url("/first"));
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 30 && HostPool().QueuedCount() == 10; }));
  std::jthread stop([] { TolmLPCFrameUnInit(); });
  ASSERT_TRUE(WaitFor([] { return HostPool().QueuedCount() == 0; }));
  gate.Open();
  stop.join();
  EXPECT_EQ(host_.Count(), 30u);

  // Nor are they in a second life.
  transport_.start_listen = [&](const std::string&) { return true; };
  host_.Clear();
  Start();
  transport_.Deliver(Message().From("A").Url("/second"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count() != 0; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(host_.Only().lpc_data.url, "/second");
}

TEST_F(FrameStop, AMessageBetweenTwoLivesIsForgotten) {
  Start();
  TolmLPCFrameUnInit();
  CLpcServerManager::LPCServerCallback(Message().From("A").Url("/between"), nullptr);
  CLpcServerManager::LPCServerCallback(InitFinish("A"), nullptr);
  Start();
  transport_.Deliver(Message().From("A").Url("/second"));
  ASSERT_TRUE(WaitFor([&] { return host_.Count() != 0; }));
  EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  EXPECT_EQ(host_.Only().lpc_data.url, "/second");
}

TEST_F(FrameStop, WhatAMessageHoldsIsGivenBackAlsoWhenItIsNotDelivered) {
  Start();
  TolmLPCFrameUnInit();
  auto lease = std::make_shared<int>(0);
  tag_LPCCallBackData record = Message().From("A").Url("/x").Record();
  record.lease = lease;
  CLpcServerManager::LPCServerCallback(record, nullptr);
  record.lease.reset();
  EXPECT_EQ(lease.use_count(), 1);
}

TEST_F(FrameStop, WhatAMessageHoldsIsGivenBackOnceTheHostHasHadIt) {
  Start();
  auto lease = std::make_shared<int>(0);
  tag_LPCCallBackData record = Message().From("A").Url("/x").Record();
  record.lease = lease;
  transport_.Deliver(record);
  record.lease.reset();
  EXPECT_TRUE(WaitFor([&] { return host_.Count() == 1 && lease.use_count() == 1; }));
}

}  // namespace
}  // namespace tolm::test
