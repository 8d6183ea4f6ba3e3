// What the host may do inside of its callback.

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;

/// What a callback of the test found out.
class Results {
 public:
  /// True for the first who asks.
  bool Begin() { return !begun_.exchange(true); }
  void Set(const std::string& name, bool value) {
    const std::lock_guard lock(mutex_);
    results_[name] = value;
    changed_.notify_all();
  }
  /// False also when nothing was found out in time.
  bool Wait(const std::string& name) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return results_.contains(name); });
    return results_.contains(name) && results_[name];
  }

 private:
  std::atomic<bool> begun_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, bool> results_;  // guarded by mutex_
};

std::string KindOf(const HostSide::Event& event) {
  switch (event.LpcMsgType) {
    case TolmLPCFrame::kLpcMsgPush:
      return "push";
    case TolmLPCFrame::kLpcMsgPluginConnected:
      return "connected";
    case TolmLPCFrame::kLpcMsgPluginDisconnected:
      return "disconnected";
    case TolmLPCFrame::kLpcMsgPluginInited:
      return "inited";
    default:
      break;
  }
  switch (event.lpc_data.msg_type) {
    case TolmLPCFrame::kMsgTypeRequest:
      return "request";
    case TolmLPCFrame::kMsgTypeReply:
      return "reply";
    default:
      return "notification";
  }
}

class CallbackOf : public SystemTest, public ::testing::WithParamInterface<std::string> {
 protected:
  /// Makes plugin a, which runs, be the reason for an event of this kind.
  void Provoke(ChildProcess& a) {
    auto push = Notification("/a/push");
    push.http_headers["X-Tag"] = "tag";
    const std::map<std::string, TolmLPCFrame::LPCData> reasons{
        {"push", push},
        {"request", Notification("/a/later", "/host/ask")},
        {"reply", Request("/a/echo")},
        {"notification", Notification("/a/tell")},
    };
    if (const auto reason = reasons.find(GetParam()); reason != reasons.end()) {
      EXPECT_TRUE(Send(reason->second));
    }
    if (GetParam() == "disconnected") a.Kill();
  }

  // Shared with callbacks: one that stops the frame is not waited for.
  const std::shared_ptr<Results> results_ = std::make_shared<Results>();
};

TEST_P(CallbackOf, MayCallAPluginAndWait) {
  host_.SetHook([this](const HostSide::Event& event) {
    if (event.lpc_data.src_id != "a" || KindOf(event) != GetParam()) return;
    const std::shared_ptr<Results> results = results_;
    if (!results->Begin()) return;
    const Answer answer = Call(Request("/b/echo", "from inside"));
    results->Set("answered", answer.came && answer.data.body == "from inside");
  });
  StartFrame({"a", "b"});
  StartPlugin("b");
  Provoke(StartPlugin("a"));
  EXPECT_TRUE(results_->Wait("answered"));
}

TEST_P(CallbackOf, MayStopTheFrame) {
  host_.SetHook([this](const HostSide::Event& event) {
    if (event.lpc_data.src_id != "a" || KindOf(event) != GetParam()) return;
    const std::shared_ptr<Results> results = results_;
    if (!results->Begin()) return;
    results->Set("stopped", TolmLPCFrame::TolmLPCFrameUnInit() == TolmLPCFrame::kFrameOk);
  });
  StartFrame({"a", "b"});
  StartPlugin("b");
  ChildProcess& a = LaunchPlugin("a");
  if (GetParam() != "connected" && GetParam() != "inited") {
    ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "a"));
    Provoke(a);
  }
  EXPECT_TRUE(results_->Wait("stopped"));
  StopFrame();  // waits for what the callback could not wait for: its own thread
}

INSTANTIATE_TEST_SUITE_P(, CallbackOf,
                         ::testing::Values("push", "request", "reply", "notification", "connected",
                                           "disconnected", "inited"),
                         [](const auto& kind) { return kind.param; });

using Callback = SystemTest;

TEST_F(Callback, MayRunOnManyThreadsAtOnce) {
  std::mutex mutex;
  std::condition_variable changed;
  int inside = 0;
  bool met = false;
  host_.SetHook([&](const HostSide::Event& event) {
    if (event.lpc_data.url != "/host/tell") return;
    std::unique_lock lock(mutex);
    met = ++inside == 4 || met;
    changed.notify_all();
    changed.wait_for(lock, kPatience, [&] { return met; });
  });
  StartFrame({"a"});
  StartPlugin("a");
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(Send(Notification("/a/tell")));
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, kPatience, [&] { return met; }));
  }
  StopFrame();  // the callbacks have ended behind that
}

}  // namespace
}  // namespace tolm::test
