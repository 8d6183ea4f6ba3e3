// The exported operations and a plugin of the SDK with too little memory, frame and plugin in one process: no
// exception leaves either, and what has failed has a code or goes on by itself.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ScarceMemory.h"
#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "TolmLPCServer/LpcError.h"
#include "TolmPlugin/Plugin.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;

constexpr char kEndpoint[] = "plugin-shortage";
// Only a failing test waits for so long.
constexpr int kLong = 20'000;

class PluginShortage : public testing::Test {
 protected:
  PluginShortage() {
    SetLogStderrLevel(kLogNothing);
    RegisterLpcMsgCallback(&PluginShortage::OnEvent, nullptr);
    StartFrame();
  }
  ~PluginShortage() override {
    plugin_.reset();
    TolmLPCFrameUnInit();
    RegisterLpcMsgCallback(nullptr, nullptr);
  }

  static void StartFrame() {
    PlatformInfo info;
    info.plugin_map["alpha"].plugin_id = "alpha";
    EXPECT_EQ(TolmLPCFrameInit(kEndpoint, info), kFrameOk);
  }
  static std::unique_ptr<TolmPlugin::Plugin> MakePlugin() {
    auto plugin = std::make_unique<TolmPlugin::Plugin>("alpha");
    plugin->Serve("/alpha/echo", [](TolmPlugin::Request&& request) {
      return TolmPlugin::Message{.headers = request.message.headers,
                                 .parts = request.message.parts,
                                 .body = std::move(request.message.body)};
    });
    plugin->UseHeaders({"X-Alpha"});
    return plugin;
  }
  void StartPlugin() {
    plugin_ = MakePlugin();
    ASSERT_TRUE(plugin_->Start(kEndpoint));
    AwaitService();
  }
  void AwaitService() const {
    EXPECT_TRUE(plugin_->WaitReady(kLong));
    LPCData answer;
    EXPECT_TRUE(WaitFor([&] { return SyncSend(answer, ToPlugin(), kLong) && answer.body == "body"; }));
  }

  static LPCData ToPlugin() {
    LPCData request;
    request.url = "/alpha/echo";
    request.body = "body";
    request.http_headers["X-Alpha"] = "a";
    request.http_mime.resize(1);
    return request;
  }
  static TolmPlugin::Message ToHost() {
    return {
        .url = "/host/echo", .headers = {{"X-Alpha", "a"}}, .parts = {{}}, .body = std::string(2000, 'b')};
  }

  static bool OnEvent(const FrameCallBackData& event, void* /*user*/) {
    const Spared spared;  // a host's own memory is the host's
    const LPCData& data = event.lpc_data;
    if (event.LpcMsgType != kLpcMsgLpcData || data.msg_type != kMsgTypeRequest) return true;
    LPCData reply;
    reply.msg_type = kMsgTypeReply;
    reply.dst_id = data.src_id;
    reply.msg_id = data.msg_id;
    reply.body = data.body;
    std::uint64_t id = 0;
    AsyncSend(id, reply);
    return true;
  }

  // `act` on this thread without one of its allocations; it must not throw.
  template <typename Act>
  static int EachWithoutOne(const Act& act) {
    return RefuseEach([&](std::uint64_t number) {
      return Without(number, ScarceMemory::Of::kThisThread, [&]() noexcept { act(); });
    });
  }

  const RuntimeDirectory directory_;
  std::unique_ptr<TolmPlugin::Plugin> plugin_;
};

TEST_F(PluginShortage, NoExceptionLeavesAnExportedOperation) {
  StartPlugin();
  const LPCData request = ToPlugin();
  LPCData notice = request;
  notice.msg_type = kMsgTypeNotify;
  LPCData reply = request;
  reply.msg_type = kMsgTypeReply;
  reply.dst_id = "alpha";
  const std::vector<std::string> urls{"/host/echo", "/host/a url that is too long for a text without memory"};
  std::uint64_t id = 0;
  int time_out = 0;
  LPCData answer;
  std::vector<std::string> headers;
  const std::string unknown(100, 'u');
  EXPECT_GE(EachWithoutOne([&] { SyncSend(answer, request, kLong); }), 5);
  EXPECT_GE(EachWithoutOne([&] { AsyncSend(id, request); }), 5);
  EXPECT_GE(EachWithoutOne([&] { AsyncSend(id, notice); }), 5);
  EXPECT_GE(EachWithoutOne([&] { AsyncSend(id, reply); }), 5);
  EXPECT_GE(EachWithoutOne([&] { RegisterUrl(urls); }), 1);
  EXPECT_EQ(EachWithoutOne([&] { IsPluginURL(time_out, request.url); }), 0) << "it needs none";
  EXPECT_GE(EachWithoutOne([&] { std::vector<std::string>().swap(headers), GetHttpHeaders(headers); }), 1);
  EXPECT_GE(EachWithoutOne([&] { TolmLPCFrameStartPlugin("alpha"); }), 1);
  EXPECT_GE(EachWithoutOne([&] { TolmLPCFrameNotifyStartPlugins(unknown); }), 1);
  AwaitService();
}

TEST_F(PluginShortage, WhatAPluginSaysWithoutMemoryFailsWithACode) {
  StartPlugin();
  const TolmPlugin::Message message = ToHost();
  const std::string tag(100, 't');
  TolmPlugin::Message answer;
  const auto expect_code = [](bool done) {
    const Spared spared;
    EXPECT_TRUE(done || TolmPlugin::Plugin::LastError() != lpc::kOk);
  };
  EXPECT_GE(EachWithoutOne([&] { expect_code(plugin_->Call(answer, message, kLong)); }), 10);
  EXPECT_GE(EachWithoutOne([&] { expect_code(plugin_->CallLater(message) != 0); }), 10);
  EXPECT_GE(EachWithoutOne([&] { expect_code(plugin_->Notify(message)); }), 10);
  EXPECT_GE(EachWithoutOne([&] { expect_code(plugin_->Push(tag, message)); }), 10);
  EXPECT_TRUE(WaitFor([&] { return plugin_->Call(answer, message, kLong) && answer.body == message.body; }));
  const auto before_its_start = MakePlugin();
  EXPECT_FALSE(before_its_start->Notify(message));
  EXPECT_EQ(TolmPlugin::Plugin::LastError(), lpc::kNotConnected);
}

TEST_F(PluginShortage, AStartThatFailsMayBeRepeated) {
  int failed = 0;
  const int trials = RefuseEach([&](std::uint64_t number) {
    plugin_ = MakePlugin();
    bool started = false;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kThisThread,
                                          [&] { [&]() noexcept { started = plugin_->Start(kEndpoint); }(); });
    if (!started) {
      ++failed;
      EXPECT_EQ(TolmPlugin::Plugin::LastError(), lpc::kFailed) << number;
      EXPECT_TRUE(plugin_->Start(kEndpoint)) << number;
    }
    AwaitService();
    plugin_.reset();
    return refused;
  });
  EXPECT_GE(trials, 5);
  EXPECT_GE(failed, 5);
}

TEST_F(PluginShortage, APluginIsReadyInTheEndWhateverFailsOnTheWay) {
  const int trials = RefuseEach([&](std::uint64_t number) {
    plugin_ = MakePlugin();
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kOtherThreads, [&] {
      EXPECT_TRUE(plugin_->Start(kEndpoint));
      EXPECT_TRUE(plugin_->WaitReady(kLong)) << number;
    });
    plugin_.reset();
    return refused;
  });
  EXPECT_GE(trials, 30);
}

TEST_F(PluginShortage, ARequestIsAnsweredOrItsSenderHasACode) {
  StartPlugin();
  const LPCData request = ToPlugin();
  const int trials = RefuseEach([&](std::uint64_t number) {
    LPCData answer;
    bool answered = false;
    const std::uint64_t refused = Without(number, ScarceMemory::Of::kOtherThreads,
                                          [&] { answered = SyncSend(answer, request, kLong); });
    EXPECT_TRUE(answered || GetLPCLastError() != lpc::kOk) << number;
    EXPECT_NE(GetLPCLastError(), lpc::kTimeOut) << number;
    AwaitService();
    return refused;
  });
  EXPECT_GE(trials, 10);
}

TEST_F(PluginShortage, AStopForgetsThePluginWhateverFailsInIt) {
  const int trials = RefuseEach([&](std::uint64_t number) {
    StartPlugin();
    const std::uint64_t refused =
        Without(number, ScarceMemory::Of::kAllThreads, [&] { TolmLPCFrameUnInit(); });
    plugin_.reset();
    StartFrame();
    int time_out = 0;
    EXPECT_FALSE(IsPluginURL(time_out, "/alpha/echo")) << number;
    return refused;
  });
  EXPECT_GE(trials, 3);
}

}  // namespace
}  // namespace tolm::test
