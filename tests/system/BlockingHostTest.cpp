// A host that stays in its callback: what goes on meanwhile, and how the frame is stopped then.

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using TolmLPCFrame::LPCData;

constexpr char kBlockUrl[] = "/host/block";
/// So many callbacks of this kind the frame runs at a time; more wait for their turn.
constexpr int kMostAtOnce = 30;
constexpr int kRequests = 40;

bool Reply(const HostSide::Event& event, const std::string& body) {
  LPCData reply;
  reply.msg_type = TolmLPCFrame::kMsgTypeReply;
  reply.dst_id = event.lpc_data.src_id;
  reply.msg_id = event.lpc_data.msg_id;
  reply.body = body;
  return Send(reply);
}

class BlockingHost : public SystemTest {
 protected:
  void TearDown() override {
    Release();
    SystemTest::TearDown();
  }

  /// With plugins a, b and c; a has sent forty requests, which the host is busy with.
  void Begin() {
    host_.SetHook([this](const HostSide::Event& event) {
      EXPECT_FALSE(stopped_);
      if (event.lpc_data.url == kBlockUrl) Block();
    });
    StartFrame({"a", "b", "c", "d"});
    for (const char* id : {"a", "b", "c"}) StartPlugin(id);
    // Each asks the host and is answered before the host answers.
    for (int i = 0; i < kRequests; ++i) ASSERT_TRUE(Call(Request("/a/later", kBlockUrl)).came);
    ASSERT_TRUE(WaitForInside(kMostAtOnce));
  }
  void Block() {
    std::unique_lock lock(mutex_);
    ++inside_;
    ++begun_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
    --inside_;
    changed_.notify_all();
  }
  void Release() {
    const std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  bool WaitForInside(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return inside_ >= count; });
  }
  int inside() {
    const std::lock_guard lock(mutex_);
    return inside_;
  }
  int begun() {
    const std::lock_guard lock(mutex_);
    return begun_;
  }

  std::atomic<bool> stopped_{false};

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // All below is guarded by mutex_.
  int inside_ = 0;
  int begun_ = 0;
  bool released_ = false;
};

TEST_F(BlockingHost, HoldsUpNoCallsThatGoElsewhere) {
  Begin();
  for (int i = 0; i < 20; ++i) {
    // From the host to plugins, also to the one whose requests wait.
    EXPECT_TRUE(Call(Request("/a/echo")).came);
    EXPECT_TRUE(Call(Request("/b/echo")).came);
    // From plugin to plugin.
    EXPECT_EQ(Call(Request("/b/relay", "/c/echo")).data.body, "got relayed");
    EXPECT_EQ(Call(Request("/c/relay", "/a/echo")).data.body, "got relayed");
  }
  // A push comes without a pool.
  LPCData push = Notification("/b/push", "pushed");
  push.http_headers["X-Tag"] = "tag";
  ASSERT_TRUE(Send(push));
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPush, "b"));
  // A method message: d connects, registers and initialises, and is called.
  ChildProcess& d = StartPlugin("d");
  EXPECT_TRUE(Call(Request("/d/echo")).came);
  KillPlugin(d, "d");
  EXPECT_EQ(inside(), kMostAtOnce);
  Release();
  EXPECT_TRUE(host_.WaitFor([](const auto& event) { return event.lpc_data.url == kBlockUrl; }, kRequests));
}

TEST_F(BlockingHost, IsWaitedForByAStopFromOutsideAndCalledNoMore) {
  Begin();
  std::thread releases([this] {
    EXPECT_TRUE(host_.WaitForLog("Start UninitLogical"));
    Release();
  });
  EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  stopped_ = true;
  EXPECT_EQ(inside(), 0);
  const int begun_by_now = begun();
  releases.join();
  // Those that waited for their turn were destroyed, and a frame that starts again knows nothing of them.
  stopped_ = false;
  StartFrame({"a", "b", "c", "d"});
  EXPECT_EQ(begun(), begun_by_now);
}

TEST_F(BlockingHost, MayStopTheFrameFromInsideWhileItsOtherCallbacksRun) {
  std::promise<int> result;
  host_.SetHook([&](const HostSide::Event& event) {
    EXPECT_FALSE(stopped_);
    if (event.lpc_data.url == kBlockUrl) Block();
    if (event.lpc_data.url != "/host/stop") return;
    const int stop = TolmLPCFrame::TolmLPCFrameUnInit();
    EXPECT_EQ(inside(), 0) << "the others have ended";
    stopped_ = true;
    result.set_value(stop);
  });
  StartFrame({"a", "b"});
  for (const char* id : {"a", "b"}) StartPlugin(id);
  for (int i = 0; i < kMostAtOnce - 5; ++i) ASSERT_TRUE(Call(Request("/a/later", kBlockUrl)).came);
  ASSERT_TRUE(WaitForInside(kMostAtOnce - 5));
  ASSERT_TRUE(Send(Notification("/b/later", "/host/stop")));
  EXPECT_TRUE(host_.WaitForLog("Start UninitLogical"));
  Release();
  auto stop = result.get_future();
  ASSERT_EQ(stop.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(stop.get(), TolmLPCFrame::kFrameOk);
  StopFrame();  // waits for what the callback could not wait for: its own thread
}

TEST_F(BlockingHost, MayCallThePluginThatWaitsForIt) {
  host_.SetHook([](const HostSide::Event& event) {
    if (event.lpc_data.url != "/host/ask") return;
    const auto answer = Call(Request("/a/echo", "from inside"));
    EXPECT_TRUE(Reply(event, answer.came ? answer.data.body : "error"));
  });
  StartFrame({"a"});
  StartPlugin("a");
  std::vector<std::future<std::string>> calls;
  for (int i = 0; i < 12; ++i) {
    calls.push_back(
        std::async(std::launch::async, [] { return Call(Request("/a/relay", "/host/ask")).data.body; }));
  }
  for (auto& call : calls) EXPECT_EQ(call.get(), "got from inside");
}

}  // namespace
}  // namespace tolm::test
