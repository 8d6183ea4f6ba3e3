// Both ends of the transport while one of them lacks memory: a call ends with an answer or a code, a
// connection may end, and the next one serves.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "ScarceMemory.h"
#include "TolmLPCServer/LpcClient.h"
#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcServer.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

constexpr char kEndpoint[] = "shortage";
constexpr char kId[] = "peer";
// Only a failing test waits for so long.
constexpr int kLong = 10'000;

// What callbacks do here is not the transport's: it needs no memory.
class TransportShortage : public testing::Test {
 protected:
  TransportShortage() {
    lpcserver::Init();
    lpcserver::SetInvokeCallBack(&TransportShortage::OnServer, this);
    EXPECT_TRUE(lpcserver::StartListen(kEndpoint)) << lpcserver::GetLPCLastError();
  }
  ~TransportShortage() override {
    lpcserver::StopListen();
    lpcserver::SetInvokeCallBack(nullptr, nullptr);
    lpcserver::Uninit();
  }

  std::unique_ptr<lpcclient::CLpcClient> MakeClient() {
    connected_ = disconnected_ = failed_ = 0;
    lpcclient::Settings settings;
    settings.id = kId;
    settings.endpoint = kEndpoint;
    settings.reconnect_first_ms = 1;
    settings.reconnect_cap_ms = 5;
    settings.on_connected = [this] { ++connected_; };
    settings.on_disconnected = [this](int, const std::string&) { ++disconnected_; };
    settings.on_connect_failed = [this](int, const std::string&) { ++failed_; };
    settings.on_message = [this](tag_LPCCallBackData&& data, const lpcclient::InboundInfo&) {
      const Spared spared;
      if (data.need_reply) client_->Reply({data.msg_id, data.src_id, {}, data.body});
    };
    return std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  }
  void StartClient() {
    client_ = MakeClient();
    ASSERT_TRUE(client_->Start());
  }
  void AwaitService() {
    EXPECT_TRUE(WaitFor([this] { return CallServer() == lpc::kOk && CallClient() == lpc::kOk; }));
  }
  void StopClient() {
    client_->Stop();
    EXPECT_TRUE(WaitFor([this] { return server_connected_ == server_disconnected_; }))
        << server_connected_ << " beginnings, " << server_disconnected_ << " ends";
    EXPECT_LE(connected_ - disconnected_, 1) << "only the end that Stop makes is not told";
  }

  int CallServer() {
    tag_LPCResponseData response;
    client_->Send(response, tag_LPCRequestData{"0", {{"url", "/x"}}, body_}, kLong);
    const int error = lpcclient::GetLPCLastError();
    EXPECT_TRUE(error != lpc::kOk || response.body == body_);
    return error;
  }
  int CallClient() {
    tag_LPCResponseData response;
    lpcserver::Send(response, tag_LPCRequestData{kId, {{"url", "/x"}}, body_}, "/x", kLong);
    const int error = lpcserver::GetLPCLastError();
    EXPECT_TRUE(error != lpc::kOk || response.body == body_);
    return error;
  }
  static bool IsReason(int error) {
    return error == lpc::kOk || error == lpc::kPeerGone || error == lpc::kNotConnected ||
           error == lpc::kNoSuchPeer || error == lpc::kRefused || error == lpc::kFailed;
  }
  // Calls in both directions while the transport's threads lack memory.
  std::uint64_t Try(std::uint64_t number, ScarceMemory::Refuse refuse) {
    int to_server = 0;
    int to_client = 0;
    std::uint64_t refused = 0;
    {
      const ScarceMemory scarce(number, ScarceMemory::Of::kOtherThreads, refuse);
      to_server = CallServer();
      to_client = CallClient();
      refused = ScarceMemory::Refused();
    }
    EXPECT_TRUE(IsReason(to_server)) << number << ": " << lpc::ErrorText(to_server);
    EXPECT_TRUE(IsReason(to_client)) << number << ": " << lpc::ErrorText(to_client);
    AwaitService();
    return refused;
  }

  static void StopWithoutMemory() {
    const ScarceMemory none(1, ScarceMemory::Of::kThisThread, ScarceMemory::Refuse::kAllBehind);
    EXPECT_TRUE(lpcserver::StopListen());
  }
  static bool OnServer(const tag_LPCCallBackData& data, void* user) {
    auto& test = *static_cast<TransportShortage*>(user);
    if (test.stop_at_next_.exchange(false)) {
      StopWithoutMemory();
      return true;
    }
    const Spared spared;
    if (data.need_reply) lpcserver::Reply({data.msg_id, data.src_id, {}, data.body});
    if (data.body.find(R"("status":"connected")") != std::string::npos) ++test.server_connected_;
    if (data.body.find(R"("status":"disconnected")") != std::string::npos) ++test.server_disconnected_;
    return true;
  }

  const RuntimeDirectory directory_;
  const std::string body_ = std::string(300'000, 'b');
  std::unique_ptr<lpcclient::CLpcClient> client_;
  std::atomic<bool> stop_at_next_{false};
  std::atomic<int> connected_{0};
  std::atomic<int> disconnected_{0};
  std::atomic<int> failed_{0};
  std::atomic<int> server_connected_{0};
  std::atomic<int> server_disconnected_{0};
};

TEST_F(TransportShortage, AConnectionIsMadeInTheEnd) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    client_ = MakeClient();
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kOtherThreads, [&] {
      EXPECT_TRUE(client_->Start());
      EXPECT_TRUE(client_->WaitConnected(kLong)) << number;
      EXPECT_TRUE(WaitFor([this] { return server_connected_ > server_disconnected_; })) << number;
    });
    AwaitService();
    StopClient();
    return refused;
  });
  EXPECT_GE(trials, 10);
}

TEST_F(TransportShortage, AttemptsToConnectGoOn) {
  const int trials = RefuseEach([this](std::uint64_t number) {
    lpcserver::StopListen();
    client_ = MakeClient();
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kOtherThreads, [&] {
      EXPECT_TRUE(client_->Start());
      EXPECT_TRUE(WaitFor([this] { return failed_ >= 3; })) << number;
    });
    EXPECT_TRUE(lpcserver::StartListen(kEndpoint)) << number;
    AwaitService();
    StopClient();
    // Attempts come without an end: those behind the first few are the same again.
    return number < 40 ? refused : 0;
  });
  EXPECT_GE(trials, 10);
}

TEST_F(TransportShortage, ACallEndsWithAnAnswerOrACodeWhenThreadsOfTheTransportLackMemory) {
  StartClient();
  AwaitService();
  for (const auto refuse : {ScarceMemory::Refuse::kOne, ScarceMemory::Refuse::kAllBehind}) {
    const int trials = RefuseEach([&](std::uint64_t number) { return Try(number, refuse); });
    EXPECT_GE(trials, 4);
  }
  StopClient();
}

TEST_F(TransportShortage, ACallEndsWithAnAnswerOrACodeWhenTheCallerLacksMemory) {
  StartClient();
  AwaitService();
  // What is sent is the caller's own, and made before.
  const tag_LPCRequestData to_server{"0", {{"url", "/x"}}, body_};
  const tag_LPCRequestData to_client{kId, {{"url", "/x"}}, body_};
  const int trials = RefuseEach([&](std::uint64_t number) {
    tag_LPCResponseData response;
    int server_error = 0;
    int client_error = 0;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread, [&] {
      client_->Send(response, to_server, to_server.body, kLong);
      server_error = lpcclient::GetLPCLastError();
      lpcserver::Send(response, to_client, to_client.body, {}, kLong);
      client_error = lpcserver::GetLPCLastError();
    });
    EXPECT_TRUE(IsReason(server_error)) << number << ": " << lpc::ErrorText(server_error);
    EXPECT_TRUE(IsReason(client_error)) << number << ": " << lpc::ErrorText(client_error);
    AwaitService();
    return refused;
  });
  EXPECT_GE(trials, 2);
  StopClient();
}

TEST_F(TransportShortage, AStopInACallbackNeedsNoMemory) {
  StartClient();
  AwaitService();
  stop_at_next_ = true;
  EXPECT_EQ(CallServer(), lpc::kPeerGone);
  client_->Stop();
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  EXPECT_FALSE(stop_at_next_);
}

TEST_F(TransportShortage, AnEndpointThatIsNotMadeLeavesNothingBehind) {
  lpcserver::StopListen();
  const int trials = RefuseEach([this](std::uint64_t number) {
    bool listening = false;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread,
                                          [&] { listening = lpcserver::StartListen(kEndpoint); });
    if (!listening) {
      EXPECT_TRUE(std::filesystem::is_empty(directory_.endpoints())) << number;
      EXPECT_TRUE(lpcserver::StartListen(kEndpoint)) << number;
    }
    EXPECT_TRUE(lpcserver::StopListen());
    return refused;
  });
  EXPECT_GE(trials, 5);
}

}  // namespace
}  // namespace tolm::test
