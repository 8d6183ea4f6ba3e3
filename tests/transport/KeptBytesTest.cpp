// Who keeps the bytes of a message: the sender that goes on using them, the callback that takes them over.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Gate.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TolmLPCServer/LpcServer.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"
#include "wire/Frame.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;

// What the callback does is up to each test.
std::function<void(const tag_LPCCallBackData&)> on_message;

bool OnRecord(const tag_LPCCallBackData& data, void*) {
  if (on_message && FrameEnd::StatusIn(data).empty()) on_message(data);
  return true;
}

class KeptBytes : public testing::Test {
 protected:
  KeptBytes() {
    EXPECT_TRUE(lpcserver::Init());
    EXPECT_TRUE(lpcserver::SetInvokeCallBack(OnRecord, nullptr));
    EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  }
  ~KeptBytes() override {
    lpcserver::Uninit();
    on_message = nullptr;
  }
  static bool Answer(const tag_LPCCallBackData& request, const std::string& body) {
    return lpcserver::Reply({request.msg_id, request.src_id, request.params, body});
  }

  const RuntimeDirectory directory_;
};

const std::string kBody(100'000, 'b');

// ------------------------------------------------------------------------------------ The callback

TEST_F(KeptBytes, TheCallbackMayTakeTheRecordItself) {
  on_message = [](const tag_LPCCallBackData& data) {
    const char* const bytes = data.body.data();
    const tag_LPCCallBackData taken = lpcserver::Take(data);
    const bool is_the_same = taken.body.data() == bytes && data.body.empty() && data.params.empty();
    const tag_LPCCallBackData again = lpcserver::Take(data);
    Answer(taken, is_the_same && taken.body == kBody && again.body.empty() ? "taken" : "copied");
  };
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  for (int i = 0; i < 3; ++i) {
    tag_LPCResponseData response;
    EXPECT_EQ(plugin.Ask({"0", {{"url", "/a"}}, kBody}, response), lpc::kOk);
    EXPECT_EQ(response.body, "taken");
    EXPECT_EQ(response.params, (LpcParams{{"url", "/a"}}));
  }
}

TEST_F(KeptBytes, AnotherRecordThanTheCallbacksIsCopied) {
  on_message = [](const tag_LPCCallBackData& data) {
    tag_LPCCallBackData other = data;
    const bool copies = lpcserver::Take(other).body == kBody && other.body == kBody && data.body == kBody;
    Answer(data, copies ? "copied" : "taken");
  };
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  std::string answer;
  EXPECT_EQ(plugin.Ask(kBody, &answer), lpc::kOk);
  EXPECT_EQ(answer, "copied");
}

TEST_F(KeptBytes, AnotherThreadThanTheCallbacksGetsACopy) {
  on_message = [](const tag_LPCCallBackData& data) {
    bool copies = false;
    std::thread([&] { copies = lpcserver::Take(data).body == kBody && data.body == kBody; }).join();
    Answer(data, copies ? "copied" : "taken");
  };
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  std::string answer;
  EXPECT_EQ(plugin.Ask(kBody, &answer), lpc::kOk);
  EXPECT_EQ(answer, "copied");
}

TEST_F(KeptBytes, WithoutACallbackARecordIsCopied) {
  tag_LPCCallBackData record;
  record.body = kBody;
  EXPECT_EQ(lpcserver::Take(record).body, kBody);
  EXPECT_EQ(record.body, kBody);
}

TEST_F(KeptBytes, ARecordThatWasTakenCountsAsWorkedOnUntilItIsGone) {
  lpc::Options options;
  options.max_inbound_bytes = 1u << 20;
  lpcserver::Uninit();
  lpcserver::SetOptions(options);
  ASSERT_TRUE(lpcserver::Init());
  std::mutex mutex;
  std::vector<tag_LPCCallBackData> kept;
  const auto count = [&] {
    const std::lock_guard lock(mutex);
    return kept.size();
  };
  ASSERT_TRUE(lpcserver::SetInvokeCallBack(OnRecord, nullptr));
  on_message = [&](const tag_LPCCallBackData& data) {
    const std::lock_guard lock(mutex);
    kept.push_back(lpcserver::Take(data));
  };
  ASSERT_TRUE(lpcserver::StartListen(kEndpoint));
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  constexpr std::size_t kMessages = 100;
  for (std::size_t i = 0; i < kMessages; ++i) ASSERT_TRUE(plugin.client().Notify({"0", {}, kBody}));
  // One turn of reading may go beyond the limit.
  EXPECT_TRUE(WaitFor([&] { return count() >= 2; }));
  EXPECT_FALSE(WaitFor([&] { return count() > kMessages / 2; }, std::chrono::milliseconds(200)));
  std::size_t gone = 0;
  EXPECT_TRUE(WaitFor([&] {
    const std::lock_guard lock(mutex);
    gone += kept.size();
    kept.clear();
    return gone == kMessages;
  }));
  lpcserver::Uninit();
  lpcserver::SetOptions({});
}

// -------------------------------------------------------------------------------------- The sender

/// The body of message `i`, and its place, which is used for all of them.
std::string_view Fill(std::string& place, int i) {
  place.assign(60'000 + static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
  return place;
}

// Reads whole messages of less than a frame, and looks whether they are those of Fill.
void ExpectFilled(RawPeer& peer, FrameType type, int count) {
  std::string expected;
  for (int i = 0; i < count; ++i) {
    const auto frame = peer.ReadUntil(type);
    ASSERT_TRUE(frame) << i;
    Fill(expected, i);
    EXPECT_TRUE(frame->payload.ends_with(expected)) << i;
    EXPECT_FALSE(frame->payload.ends_with("own")) << i;
  }
}

class Shook : public KeptBytes {
 protected:
  Shook() : peer_(os::SystemTransport(), kEndpoint) {
    EXPECT_TRUE(peer_.Shake("deaf"));
    EXPECT_TRUE(WaitFor([] { return lpcserver::GetStatistics().peers == 1; }));
  }
  static constexpr int kMessages = 100;  // which no stream holds on its way

  RawPeer peer_;
  std::string place_;
};

TEST_F(Shook, ANotificationThatHasToWaitIsCopied) {
  const tag_LPCNotifyData notify{"deaf", {}, "its own"};
  for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(lpcserver::Notify(notify, Fill(place_, i)));
  place_.assign(place_.size(), 'X');
  ExpectFilled(peer_, FrameType::kNotify, kMessages);
}

TEST_F(Shook, ARequestThatHasToWaitIsCopied) {
  const tag_LPCRequestData request{"deaf", {}, "its own"};
  for (int i = 0; i < kMessages; ++i) ASSERT_NE(lpcserver::Send(request, Fill(place_, i)), 0u);
  place_.assign(place_.size(), 'X');
  ExpectFilled(peer_, FrameType::kRequest, kMessages);
}

TEST_F(Shook, AReplyThatHasToWaitIsCopied) {
  const tag_LPCReplyData reply{6, "deaf", {}, "its own"};
  for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(lpcserver::Reply(reply, Fill(place_, i)));
  place_.assign(place_.size(), 'X');
  ExpectFilled(peer_, FrameType::kReply, kMessages);
}

TEST_F(Shook, ARequestWhoseCallerHasGivenUpWasCopied) {
  const tag_LPCRequestData request{"deaf", {}, "its own"};
  tag_LPCResponseData response;
  response.body = "untouched";
  for (int i = 0; i < kMessages; ++i) {
    EXPECT_FALSE(lpcserver::Send(response, request, Fill(place_, i), "/url", 1));
    EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kTimeOut);
  }
  place_.assign(place_.size(), 'X');
  ExpectFilled(peer_, FrameType::kRequest, kMessages);
  EXPECT_EQ(response.body, "untouched");
}

TEST_F(KeptBytes, WhatAPluginSendsAndHasToWaitIsCopied) {
  Gate gate;
  lpc::Options options;
  options.max_inbound_bytes = 1u << 20;
  lpcserver::Uninit();
  lpcserver::SetOptions(options);
  ASSERT_TRUE(lpcserver::Init());
  std::mutex mutex;
  std::vector<std::string> bodies;
  on_message = [&](const tag_LPCCallBackData& data) {
    gate.Wait();
    const std::lock_guard lock(mutex);
    bodies.push_back(data.body);
  };
  ASSERT_TRUE(lpcserver::SetInvokeCallBack(OnRecord, nullptr));
  ASSERT_TRUE(lpcserver::StartListen(kEndpoint));
  PluginEnd plugin(os::SystemTransport(), "alpha");
  ASSERT_TRUE(plugin.WaitConnected());
  const tag_LPCNotifyData notify{"0", {}, "its own"};
  const tag_LPCRequestData request{"0", {}, "its own"};
  std::string place;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(i % 2 == 0 ? plugin.client().Notify(notify, Fill(place, i))
                           : plugin.client().Send(request, Fill(place, i)) != 0);
  }
  place.assign(place.size(), 'X');
  gate.Open();
  const auto all_are_there = [&] {
    const std::lock_guard lock(mutex);
    return bodies.size() == 100;
  };
  ASSERT_TRUE(WaitFor(all_are_there, std::chrono::milliseconds(kLong)));
  lpcserver::Uninit();
  lpcserver::SetOptions({});
  std::vector<std::string> expected(100);
  for (int i = 0; i < 100; ++i) Fill(expected[static_cast<std::size_t>(i)], i);
  std::sort(bodies.begin(), bodies.end(), [](const auto& a, const auto& b) { return a.size() < b.size(); });
  EXPECT_EQ(bodies, expected);
}

}  // namespace
}  // namespace tolm::test
