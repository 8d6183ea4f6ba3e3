#include "wire/PendingReplies.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "TolmLPCServer/LpcError.h"

namespace lpc::wire {
namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point Soon() {
  return Clock::now();
}
Clock::time_point Late() {
  return Clock::now() + std::chrono::seconds(30);
}

InboundMessage Reply(std::uint64_t id, const std::string& body) {
  InboundMessage reply;
  reply.type = FrameType::kReply;
  reply.id = id;
  reply.body = body;
  return reply;
}

TEST(LpcPendingReplies, AReplyReachesWhoWaitsForItsNumber) {
  PendingReplies pending;
  EXPECT_TRUE(pending.empty());
  const auto one = std::make_shared<Waiter>();
  const auto two = std::make_shared<Waiter>();
  ASSERT_TRUE(pending.Add(1, one));
  ASSERT_TRUE(pending.Add(3, two));
  EXPECT_FALSE(pending.empty());
  EXPECT_TRUE(pending.Complete(Reply(3, "for two")));
  EXPECT_TRUE(two->IsDone());
  EXPECT_FALSE(one->IsDone());
  EXPECT_EQ(two->WaitUntil(Soon()), kOk);
  EXPECT_EQ(two->reply().body, "for two");
  EXPECT_EQ(one->WaitUntil(Soon()), kTimeOut);
  EXPECT_TRUE(pending.Remove(1));
  EXPECT_TRUE(pending.empty());
}

TEST(LpcPendingReplies, AReplyForNobodyIsLeftAsItIs) {
  PendingReplies pending;
  InboundMessage reply = Reply(5, "kept");
  EXPECT_FALSE(pending.Complete(std::move(reply)));
  EXPECT_EQ(reply.body, "kept");
}

TEST(LpcPendingReplies, RemovingTellsWhetherSomebodyHasTakenIt) {
  PendingReplies pending;
  ASSERT_TRUE(pending.Add(1, std::make_shared<Waiter>()));
  EXPECT_TRUE(pending.Remove(1));
  EXPECT_FALSE(pending.Remove(1));
  EXPECT_FALSE(pending.Complete(Reply(1, "late")));
}

TEST(LpcPendingReplies, AFailureIsTheResult) {
  PendingReplies pending;
  const auto waiter = std::make_shared<Waiter>();
  ASSERT_TRUE(pending.Add(1, waiter));
  EXPECT_FALSE(pending.Fail(2, kRefused));
  EXPECT_TRUE(pending.Fail(1, kRefused));
  EXPECT_EQ(waiter->WaitUntil(Late()), kRefused);
  EXPECT_EQ(waiter->Wait(), kRefused);
}

TEST(LpcPendingReplies, AfterFailAllNobodyWaitsAnyMore) {
  PendingReplies pending;
  std::vector<std::shared_ptr<Waiter>> waiters;
  for (std::uint64_t id = 0; id < 10; ++id) {
    waiters.push_back(std::make_shared<Waiter>());
    ASSERT_TRUE(pending.Add(id, waiters.back()));
  }
  pending.FailAll(kPeerGone);
  for (const auto& waiter : waiters) EXPECT_EQ(waiter->WaitUntil(Late()), kPeerGone);
  EXPECT_TRUE(pending.empty());
  EXPECT_FALSE(pending.Add(20, waiters[0]));
  pending.FailAll(kPeerGone);
}

TEST(LpcPendingReplies, AWaitingThreadIsWoken) {
  PendingReplies pending;
  for (int i = 0; i < 200; ++i) {
    const auto waiter = Waiter::ForThisThread();
    ASSERT_TRUE(pending.Add(1, waiter));
    std::thread completes([&] { EXPECT_TRUE(pending.Complete(Reply(1, std::to_string(i)))); });
    EXPECT_EQ(waiter->WaitUntil(Late()), kOk);
    EXPECT_EQ(waiter->reply().body, std::to_string(i));
    completes.join();
  }
}

TEST(LpcWaiter, IsFreshForEachUseAndNeverSharedByTwo) {
  auto first = Waiter::ForThisThread();
  first->Complete(Reply(1, "of the first"));
  EXPECT_NE(Waiter::ForThisThread(), first) << "somebody may still complete that one";
  first.reset();
  const auto second = Waiter::ForThisThread();
  EXPECT_FALSE(second->IsDone());
  EXPECT_EQ(second->WaitUntil(Soon()), kTimeOut);
  EXPECT_TRUE(second->reply().body.empty());
}

}  // namespace
}  // namespace lpc::wire
