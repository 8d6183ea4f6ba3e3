// The functions of lpcserver: one endpoint per process, whatever order they are called in.

#include "TolmLPCServer/LpcServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Gate.h"
#include "PluginEnd.h"
#include "ProcessRole.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

// What the callback does is up to each test.
std::function<void(const tag_LPCCallBackData&)> on_record;

bool OnRecord(const tag_LPCCallBackData& data, void* user) {
  ++*static_cast<std::atomic<int>*>(user);
  if (on_record) on_record(data);
  return true;
}

void Echo(const tag_LPCCallBackData& data) {
  if (data.need_reply) lpcserver::Reply({data.msg_id, data.src_id, data.params, data.body});
}

class LpcServer : public testing::Test {
 protected:
  LpcServer() { on_record = Echo; }
  ~LpcServer() override {
    lpcserver::Uninit();
    lpcserver::SetOptions({});
  }
  void Begin() {
    ASSERT_TRUE(lpcserver::Init());
    ASSERT_TRUE(lpcserver::SetInvokeCallBack(OnRecord, &records_));
    ASSERT_TRUE(lpcserver::StartListen(kEndpoint));
  }
  bool IsConnected(const std::string& id) {
    return WaitFor([&] { return lpcserver::Notify({id, {}, "are you there"}); });
  }
  bool Meet(PluginEnd& plugin) { return plugin.WaitConnected() && IsConnected(plugin.id()); }

  const RuntimeDirectory directory_;
  std::atomic<int> records_{0};
};

TEST_F(LpcServer, CallsBeforeInitFailHarmlessly) {
  tag_LPCResponseData response;
  response.body = "untouched";
  const tag_LPCRequestData request{"alpha", {}, "x"};
  EXPECT_EQ(lpcserver::Send(request), 0u);
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_FALSE(lpcserver::Send(response, request, "/url", kLong));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_EQ(response.body, "untouched");
  EXPECT_FALSE(lpcserver::Reply({1, "alpha", {}, "x"}));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_FALSE(lpcserver::Notify({"alpha", {}, "x"}));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_FALSE(lpcserver::StartListen(kEndpoint));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_FALSE(lpcserver::SetInvokeCallBack(OnRecord, &records_));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_TRUE(lpcserver::SetInvokeCallBack(nullptr, nullptr));
  EXPECT_TRUE(lpcserver::StopListen());
  EXPECT_TRUE(lpcserver::Uninit());
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kOk);
}

TEST_F(LpcServer, CallsAfterUninitFailHarmlessly) {
  Begin();
  EXPECT_TRUE(lpcserver::Uninit());
  EXPECT_TRUE(lpcserver::Uninit());
  EXPECT_EQ(lpcserver::Send({"alpha", {}, "x"}), 0u);
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNotInitialised);
  EXPECT_FALSE(lpcserver::StartListen(kEndpoint));
  EXPECT_TRUE(lpcserver::StopListen());
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  EXPECT_TRUE(Meet(plugin));
}

TEST_F(LpcServer, AllKindsOfMessages) {
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(Meet(plugin));
  const tag_LPCRequestData request{"alpha", {{"url", "/u"}}, "body"};
  tag_LPCResponseData response;
  EXPECT_TRUE(lpcserver::Send(response, request, "/u", kLong));
  EXPECT_EQ(response.body, "body");
  EXPECT_EQ(response.src_id, "alpha");
  EXPECT_EQ(request.body, "body");
  response = {};
  EXPECT_TRUE(lpcserver::Send(response, tag_LPCRequestData(request), "/u", kLong));
  EXPECT_EQ(response.params, request.params);
  const int before = records_;
  EXPECT_NE(lpcserver::Send(request), 0u);
  EXPECT_NE(lpcserver::Send(tag_LPCRequestData(request)), 0u);
  EXPECT_TRUE(WaitFor([&] { return records_ == before + 2; })) << "the replies are records";
  EXPECT_TRUE(lpcserver::Notify({"alpha", {}, "x"}));
  const tag_LPCNotifyData notify{"alpha", {}, "y"};
  EXPECT_TRUE(lpcserver::Notify(notify));
  std::string answer;
  EXPECT_EQ(plugin.Ask("up", &answer), lpc::kOk);
  EXPECT_EQ(answer, "up");
  EXPECT_EQ(lpcserver::GetStatistics().peers, 1u);
}

TEST_F(LpcServer, TheResponseOfAFailedSendIsLeftAlone) {
  Begin();
  tag_LPCResponseData response{"src", {{"k", "v"}}, "body"};
  EXPECT_FALSE(lpcserver::Send(response, tag_LPCRequestData{"nobody", {}, "x"}, "/u", kLong));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNoSuchPeer);
  EXPECT_EQ(response.src_id, "src");
  EXPECT_EQ(response.body, "body");
}

TEST_F(LpcServer, TheLastErrorBelongsToTheThread) {
  Begin();
  EXPECT_FALSE(lpcserver::Notify({"nobody", {}, "x"}));
  std::thread([] {
    EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kOk);
    lpcserver::StartListen("another");
    EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kAlreadyListening);
  }).join();
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNoSuchPeer);
}

TEST_F(LpcServer, ListensUnderOneNameAtATime) {
  Begin();
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kOk);
  EXPECT_FALSE(lpcserver::StartListen("another"));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kAlreadyListening);
  EXPECT_TRUE(lpcserver::StopListen());
  EXPECT_TRUE(lpcserver::StopListen());
  EXPECT_TRUE(lpcserver::StartListen("another"));
}

TEST_F(LpcServer, NamesThatMayNotBe) {
  ASSERT_TRUE(lpcserver::Init());
  LogCapture log(5);
  for (const char* name : {"", ".", "..", ".hidden", "a/b", "a\\b", "a b", "a\n", "\xC3\xA4", "a:b"}) {
    EXPECT_FALSE(lpcserver::StartListen(name)) << name;
    EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointNameInvalid) << name;
  }
  EXPECT_FALSE(lpcserver::StartListen(std::string(65, 'a')));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointNameInvalid);
  EXPECT_FALSE(lpcserver::StartListen(std::string("a\0b", 3)));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointNameInvalid);
  // Only what the system can name at all: its paths of sockets are short.
  EXPECT_TRUE(lpcserver::StartListen("A-z_0.9"));
}

TEST_F(LpcServer, AnEndpointOfALivingProcessIsLeftAlone) {
  ProcessRole holder(ProcessRole::kHoldEndpoint, kEndpoint);
  ASSERT_TRUE(holder.ready());
  ASSERT_TRUE(lpcserver::Init());
  LogCapture log(5);
  EXPECT_FALSE(lpcserver::StartListen(kEndpoint));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointInUse);
  EXPECT_TRUE(lpcserver::StartListen("another"));
  // The other one still serves.
  PluginEnd plugin(os::SystemTransport(), "alpha");
  EXPECT_TRUE(plugin.WaitConnected());
}

TEST_F(LpcServer, AnEndpointOfAKilledProcessIsTakenOver) {
  ProcessRole holder(ProcessRole::kHoldEndpoint, kEndpoint);
  ASSERT_TRUE(holder.ready());
  holder.Kill();
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  EXPECT_TRUE(Meet(plugin));
}

TEST_F(LpcServer, AKilledPluginFailsItsWaitersAndIsReported) {
  std::atomic<int> disconnected{0};
  on_record = [&](const tag_LPCCallBackData& data) {
    if (FrameEnd::StatusIn(data) == "disconnected") ++disconnected;
  };
  Begin();
  ProcessRole plugin(ProcessRole::kSilentPlugin, "crashing");
  ASSERT_TRUE(plugin.ready());
  ASSERT_TRUE(IsConnected("crashing"));
  std::atomic<bool> sending{false};
  int error = -1;
  std::thread asks([&] {
    tag_LPCResponseData response;
    sending = true;
    lpcserver::Send(response, tag_LPCRequestData{"crashing", {}, "x"}, "/u", 10 * kLong);
    error = lpcserver::GetLPCLastError();
  });
  ASSERT_TRUE(WaitFor([&] { return sending.load(); }));
  plugin.Kill();
  asks.join();
  // Or the process was gone before the thread came to send.
  EXPECT_TRUE(error == lpc::kPeerGone || error == lpc::kNoSuchPeer) << error;
  EXPECT_TRUE(WaitFor([&] { return disconnected == 1; }));
}

TEST_F(LpcServer, WithoutACallbackMessagesAreCountedAndRequestersTold) {
  ASSERT_TRUE(lpcserver::Init());
  ASSERT_TRUE(lpcserver::StartListen(kEndpoint));
  const std::uint64_t before = lpcserver::GetStatistics().undelivered;
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  EXPECT_EQ(plugin.Ask("x"), lpc::kRefused);
  EXPECT_EQ(lpcserver::GetStatistics().undelivered, before + 2);
  ASSERT_TRUE(lpcserver::SetInvokeCallBack(OnRecord, &records_));
  EXPECT_EQ(plugin.Ask("x"), lpc::kOk);
  ASSERT_TRUE(lpcserver::SetInvokeCallBack(nullptr, nullptr));
  EXPECT_EQ(plugin.Ask("x"), lpc::kRefused);
}

TEST_F(LpcServer, StatisticsCountOverSeveralEndpoints) {
  const lpc::Statistics before = lpcserver::GetStatistics();
  for (int i = 0; i < 3; ++i) {
    Begin();
    PluginEnd plugin(os::SystemTransport(), "alpha");
    ASSERT_TRUE(Meet(plugin));
    ASSERT_TRUE(lpcserver::StopListen());
  }
  EXPECT_EQ(lpcserver::GetStatistics().connections, before.connections + 3);
  EXPECT_EQ(lpcserver::GetStatistics().peers, 0u);
}

TEST_F(LpcServer, OptionsHoldFromTheNextListen) {
  lpc::Options options;
  options.max_message_bytes = 1000;
  lpcserver::SetOptions(options);
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(Meet(plugin));
  EXPECT_FALSE(lpcserver::Notify({"alpha", {}, std::string(1000, 'x')}));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kMessageTooLarge);
  lpcserver::SetOptions({});
  EXPECT_FALSE(lpcserver::Notify({"alpha", {}, std::string(1000, 'x')}));
  EXPECT_TRUE(lpcserver::StopListen());
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  ASSERT_TRUE(Meet(plugin));
  EXPECT_TRUE(lpcserver::Notify({"alpha", {}, std::string(1000, 'x')}));
}

TEST_F(LpcServer, SeveralThreadsStopAndStart) {
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 20; ++i) {
        if (t % 2 == 0) {
          EXPECT_TRUE(lpcserver::StopListen());
        } else {
          EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  EXPECT_TRUE(Meet(plugin));
}

TEST_F(LpcServer, AllCallsWorkFromInsideTheCallback) {
  std::atomic<bool> done{false};
  on_record = [&](const tag_LPCCallBackData& data) {
    if (data.body != "go") return Echo(data);
    tag_LPCResponseData response;
    EXPECT_TRUE(lpcserver::Send(response, tag_LPCRequestData{data.src_id, {}, "inside"}, "/u", kLong));
    EXPECT_NE(lpcserver::Send({data.src_id, {}, "inside"}), 0u);
    EXPECT_TRUE(lpcserver::Notify({data.src_id, {}, "inside"}));
    EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
    EXPECT_TRUE(lpcserver::Init());
    EXPECT_TRUE(lpcserver::SetInvokeCallBack(nullptr, nullptr));
    EXPECT_TRUE(lpcserver::StopListen());
    EXPECT_FALSE(lpcserver::Notify({data.src_id, {}, "stopped"}));
    EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kNoSuchPeer);
    EXPECT_TRUE(lpcserver::StartListen(kEndpoint)) << lpc::ErrorText(lpcserver::GetLPCLastError());
    EXPECT_TRUE(lpcserver::Uninit());
    done = true;
  };
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(Meet(plugin));
  // What it gives is not told: the connection may end before it returns.
  plugin.client().Notify({"0", {}, "go"});
  EXPECT_TRUE(WaitFor([&] { return done.load(); }, std::chrono::milliseconds(kLong)));
}

TEST_F(LpcServer, AStopFromElsewhereWaitsForTheCallbackThatStopped) {
  Gate gate;
  std::atomic<bool> stopped{false};
  std::atomic<bool> finished{false};
  on_record = [&](const tag_LPCCallBackData&) {
    if (stopped.exchange(true)) return;
    lpcserver::StopListen();
    gate.Wait();
    finished = true;
  };
  Begin();
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  std::atomic<bool> opened{false};
  std::thread stops([&] {
    lpcserver::StopListen();
    EXPECT_TRUE(opened) << "it did not wait";
    EXPECT_TRUE(finished);
  });
  // It would be back by then if it did not wait; nothing shows that it does.
  for (int i = 0; i < 50; ++i) Nap();
  opened = true;
  gate.Open();
  stops.join();
}

TEST_F(LpcServer, NoCallbackStartsAfterStopListen) {
  std::atomic<bool> stopped{false};
  std::atomic<bool> late{false};
  on_record = [&](const tag_LPCCallBackData&) {
    if (stopped) late = true;
  };
  for (int round = 0; round < 20; ++round) {
    stopped = false;
    Begin();
    PluginEnd plugin(os::SystemTransport(), "alpha");
    std::atomic<bool> done{false};
    std::thread talks([&] {
      while (!done) plugin.client().Notify({"0", {}, "x"});
    });
    const int before = records_;
    EXPECT_TRUE(WaitFor([&] { return records_ > before + 10; }));
    EXPECT_TRUE(lpcserver::StopListen());
    stopped = true;
    done = true;
    talks.join();
  }
  EXPECT_FALSE(late);
}

}  // namespace
}  // namespace tolm::test
