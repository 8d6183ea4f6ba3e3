// Bodies for which there is no memory: they are refused, or the connection ends, and nothing else is lost.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>
#include <string>

#include "support/OwnNew.h"
#include "wire/SendQueue.h"

namespace {

thread_local std::size_t t_refused_from = std::numeric_limits<std::size_t>::max();

}  // namespace

bool tolm::test::MayAllocate(std::size_t size) noexcept {
  return size < t_refused_from;
}

namespace lpc::wire {
namespace {

using Outcome = SendQueue::Outcome;

constexpr std::size_t kMiB = 1u << 20;

/// While it lives, this thread gets no blocks of 1 MiB and more.
class NoLargeBlocks {
 public:
  NoLargeBlocks() { t_refused_from = kMiB; }
  ~NoLargeBlocks() { t_refused_from = std::numeric_limits<std::size_t>::max(); }
  NoLargeBlocks(const NoLargeBlocks&) = delete;
  NoLargeBlocks& operator=(const NoLargeBlocks&) = delete;
};

// A stream that takes so many bytes, and counts them.
class Counter final : public os::Stream {
 public:
  Counter() : os::Stream(0) {}
  os::IoResult Read(const os::MutableBuffer*, std::size_t) override { return {os::IoStatus::kWouldBlock}; }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < count; ++i) bytes += std::min(buffers[i].size, room - bytes);
    room -= bytes;
    taken += bytes;
    return bytes > 0 ? os::IoResult{os::IoStatus::kDone, bytes} : os::IoResult{os::IoStatus::kWouldBlock};
  }
  os::StreamState Wait(bool, int) override { return {}; }
  void Shutdown() noexcept override {}
  os::PeerIdentity Peer() const override { return {}; }

  std::size_t room = 0;
  std::size_t taken = 0;
};

class LpcSendQueueMemory : public testing::Test {
 protected:
  Outcome Send(const std::string& body) {
    OutgoingMessage message;
    message.params = &params_;
    message.body.bytes = body;
    return queue_.Send(message);
  }

  const std::string large_ = std::string(3 * kMiB, 'l');
  Options options_;
  Counter stream_;
  SendQueue queue_{stream_, options_};

 private:
  const LpcParams params_{};
};

TEST_F(LpcSendQueueMemory, WhatIsSentAtOnceNeedsNone) {
  stream_.room = 4 * kMiB;
  const NoLargeBlocks none;
  EXPECT_EQ(Send(large_), Outcome::kSent);
}

TEST_F(LpcSendQueueMemory, AMessageThatCannotBeKeptIsRefused) {
  const NoLargeBlocks none;
  EXPECT_EQ(Send(large_), Outcome::kNoMemory);
  EXPECT_EQ(stream_.taken, 0u);
  stream_.room = kMiB;
  EXPECT_EQ(queue_.Resume(), Outcome::kQueued);
  EXPECT_EQ(Send("small"), Outcome::kSent) << "nobody writes any more";
}

TEST_F(LpcSendQueueMemory, OneBehindOthersIsRefusedAndTheyAreNotLost) {
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  {
    const NoLargeBlocks none;
    EXPECT_THROW(Send(large_), std::bad_alloc);
  }
  stream_.room = 4 * kMiB;
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  const std::size_t taken = stream_.taken;
  EXPECT_LT(taken, kMiB);
  EXPECT_EQ(Send(large_), Outcome::kSent);
  EXPECT_GT(stream_.taken, taken + large_.size());
}

// What was refused for want of memory does not count as queued.
TEST_F(LpcSendQueueMemory, RefusedOnesLeaveRoomInTheQueue) {
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  for (int i = 0; i < 50; ++i) {
    const NoLargeBlocks none;
    EXPECT_THROW(Send(large_), std::bad_alloc);
  }
  EXPECT_EQ(Send(large_), Outcome::kQueued);
}

TEST_F(LpcSendQueueMemory, HalfAMessageEndsTheConnection) {
  stream_.room = kMiB / 2;
  const NoLargeBlocks none;
  EXPECT_EQ(Send(large_), Outcome::kTorn);
  stream_.room = kMiB;
  EXPECT_EQ(Send("small"), Outcome::kBroken) << "it would be taken for the rest";
}

// Many who are refused at a time would otherwise make many copies.
TEST_F(LpcSendQueueMemory, WhoIsRefusedForAFullQueueMakesNoCopy) {
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  Outcome outcome = Outcome::kQueued;
  for (int i = 0; outcome == Outcome::kQueued; ++i) {
    ASSERT_LT(i, 30);
    outcome = Send(large_);
  }
  EXPECT_EQ(outcome, Outcome::kFull);
  const NoLargeBlocks none;
  EXPECT_EQ(Send(large_), Outcome::kFull);
}

}  // namespace
}  // namespace lpc::wire
