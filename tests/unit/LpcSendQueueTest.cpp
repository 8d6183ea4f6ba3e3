#include "wire/SendQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Wait.h"
#include "wire/FrameReader.h"

namespace lpc::wire {
namespace {

using Outcome = SendQueue::Outcome;

// A stream that takes what a test lets it take, and keeps it.
class Taker final : public os::Stream {
 public:
  Taker() : os::Stream(0) {}
  os::IoResult Read(const os::MutableBuffer*, std::size_t) override { return {os::IoStatus::kWouldBlock}; }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    if (on_write_) on_write_();
    const std::lock_guard lock(mutex_);
    ++writes_;
    if (status_ != os::IoStatus::kDone) return {status_};
    if (writes_ == fails_at_) return {os::IoStatus::kFailed, 0, 5};
    const std::size_t before = taken_.size();
    for (std::size_t i = 0; i < count && room_ > 0; ++i) {
      const std::size_t part = std::min({buffers[i].size, room_, before + at_most_ - taken_.size()});
      taken_.append(static_cast<const char*>(buffers[i].data), part);
      room_ -= part;
    }
    const std::size_t bytes = taken_.size() - before;
    return bytes > 0 ? os::IoResult{os::IoStatus::kDone, bytes} : os::IoResult{os::IoStatus::kWouldBlock};
  }
  os::StreamState Wait(bool, int) override { return {}; }
  void Shutdown() noexcept override {}
  os::PeerIdentity Peer() const override { return {}; }

  void Room(std::size_t room) {
    const std::lock_guard lock(mutex_);
    room_ = room;
  }
  void OnWrite(std::function<void()> on_write) { on_write_ = std::move(on_write); }
  void AtMostAtATime(std::size_t bytes) { at_most_ = bytes; }
  void FailAt(int write) { fails_at_ = write; }
  void Always(os::IoStatus status) { status_ = status; }
  int writes() const { return writes_; }
  std::string taken() const {
    const std::lock_guard lock(mutex_);
    return taken_;
  }

 private:
  mutable std::mutex mutex_;
  std::string taken_;
  std::size_t room_ = std::string::npos;
  std::size_t at_most_ = 1u << 30;
  int fails_at_ = 0;
  std::function<void()> on_write_;
  int writes_ = 0;
  os::IoStatus status_ = os::IoStatus::kDone;
};

// What a peer reads of it: the bodies in the order in which they are complete; "#5" for a control frame of
// this type.
std::vector<std::string> ReadBack(const std::string& bytes) {
  class Bodies final : public FrameSink {
   public:
    void OnControlFrame(const FrameHeader& header, std::string_view) override {
      bodies.push_back("#" + std::to_string(static_cast<int>(header.type)));
    }
    void OnMessage(InboundMessage&& message) override { bodies.push_back(std::move(message.body)); }
    std::vector<std::string> bodies;
  };
  const Options options;
  FrameReader reader(options);
  reader.AcceptMessages();
  Bodies sink;
  EXPECT_TRUE(reader.Feed(bytes, sink)) << reader.violation();
  return std::move(sink.bodies);
}

const LpcParams kNoParams;

OutgoingMessage Message(std::string_view body) {
  OutgoingMessage message;
  message.params = &kNoParams;
  message.body = {body};
  return message;
}

class LpcSendQueue : public testing::Test {
 protected:
  Outcome Send(std::string_view body) { return queue_.Send(Message(body)); }

  Taker stream_;
  Options options_;
  SendQueue queue_{stream_, options_};
};

TEST_F(LpcSendQueue, AMessageGoesOutInOneCallOnTheSendersThread) {
  EXPECT_EQ(Send("body"), Outcome::kSent);
  EXPECT_EQ(stream_.writes(), 1);
  EXPECT_EQ(ReadBack(stream_.taken()), std::vector<std::string>{"body"});
  EXPECT_FALSE(queue_.BlockedSince());
}

// However the stream cuts it: the same bytes arrive.
TEST_F(LpcSendQueue, EveryWayOfTakingAMessageInPieces) {
  const std::string body(40, 'b');
  std::string whole;
  {
    Taker stream;
    SendQueue queue(stream, options_);
    queue.Send(Message(body));
    whole = stream.taken();
  }
  for (std::size_t room = 0; room < whole.size(); ++room) {
    Taker stream;
    SendQueue queue(stream, options_);
    stream.Room(room);
    EXPECT_EQ(queue.Send(Message(body)), Outcome::kBlocked);
    EXPECT_TRUE(queue.BlockedSince());
    EXPECT_EQ(queue.Send(Message("behind")), Outcome::kQueued);
    EXPECT_EQ(queue.SendControl(FrameType::kPing, 0, ""), Outcome::kQueued);
    EXPECT_EQ(stream.taken().size(), room);
    EXPECT_EQ(queue.Resume(), Outcome::kBlocked) << "it was woken for nothing";
    stream.Room(std::string::npos);
    EXPECT_EQ(queue.Resume(), Outcome::kSent);
    EXPECT_EQ(queue.Resume(), Outcome::kQueued) << "there is nothing to resume";
    EXPECT_EQ(ReadBack(stream.taken()), (std::vector<std::string>{body, "behind", "#5"})) << room;
    EXPECT_FALSE(queue.BlockedSince());
  }
}

TEST_F(LpcSendQueue, AFewBytesAtATime) {
  stream_.AtMostAtATime(3);
  const std::string large(600'000, 'l');
  stream_.AtMostAtATime(1001);
  Outcome outcome = Send(large);
  while (outcome == Outcome::kBlocked) outcome = queue_.Resume();
  EXPECT_EQ(outcome, Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()), std::vector<std::string>{large});
}

TEST_F(LpcSendQueue, LongMetaIsCutIntoChunksAsWell) {
  const LpcParams params = {{"url", std::string(1'000'000, 'u')}};
  OutgoingMessage message = Message("body");
  message.params = &params;
  stream_.AtMostAtATime(100'000);
  Outcome outcome = queue_.Send(message);
  while (outcome == Outcome::kBlocked) outcome = queue_.Resume();
  EXPECT_EQ(ReadBack(stream_.taken()), std::vector<std::string>{"body"});
}

TEST_F(LpcSendQueue, SmallOnesOvertakeLargeOnesWhichKeepTheirOrder) {
  stream_.Room(0);
  const std::string first(1'000'000, '1');
  const std::string second(500'000, '2');
  EXPECT_EQ(Send(first), Outcome::kBlocked);
  EXPECT_EQ(Send(second), Outcome::kQueued);
  EXPECT_EQ(Send("small"), Outcome::kQueued);
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()), (std::vector<std::string>{"small", first, second}));
}

// Whenever something is written, more small ones come: the large one is sent all the same.
TEST_F(LpcSendQueue, SmallOnesWithoutEndDoNotHoldUpALargeOne) {
  stream_.Room(0);
  const std::string large(1'000'000, 'l');
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  EXPECT_EQ(Send(large), Outcome::kQueued);
  stream_.OnWrite([this] {
    for (int i = 0; i < 100; ++i) Send("small");
  });
  stream_.Room(std::string::npos);
  for (int turn = 0; turn < 5; ++turn) queue_.Resume();
  stream_.OnWrite({});
  while (queue_.Resume() == Outcome::kBlocked) {
  }
  const auto bodies = ReadBack(stream_.taken());
  const auto found = std::find(bodies.begin(), bodies.end(), large);
  ASSERT_NE(found, bodies.end());
  EXPECT_GT(bodies.end() - found, 1000) << "long before the last of the small ones";
}

TEST_F(LpcSendQueue, TheBytesOfAQueuedMessageAreItsOwn) {
  stream_.Room(0);
  Send("in front");
  std::string body = "a body that is longer than a short string";
  EXPECT_EQ(Send(body), Outcome::kQueued);
  body.assign(body.size(), 'X');
  std::string given = "a body that the sender gave away with it";
  OutgoingMessage message = Message(given);
  message.body.owner = &given;
  EXPECT_EQ(queue_.Send(message), Outcome::kQueued);
  EXPECT_TRUE(given.empty()) << "it was not copied";
  stream_.Room(std::string::npos);
  queue_.Resume();
  EXPECT_EQ(ReadBack(stream_.taken()),
            (std::vector<std::string>{"in front", "a body that is longer than a short string",
                                      "a body that the sender gave away with it"}));
}

TEST_F(LpcSendQueue, ManyGoOutInFewCalls) {
  stream_.Room(0);
  for (int i = 0; i < 1000; ++i) Send(std::to_string(i));
  const int before = stream_.writes();
  stream_.Room(std::string::npos);
  while (queue_.Resume() == Outcome::kBlocked) {
  }
  EXPECT_LT(stream_.writes() - before, 60);
  const auto bodies = ReadBack(stream_.taken());
  ASSERT_EQ(bodies.size(), 1000u);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(bodies[static_cast<std::size_t>(i)], std::to_string(i));
}

TEST_F(LpcSendQueue, IsBoundedInBytesButForOneMessageAlone) {
  options_.max_queue_bytes = 10'000;
  stream_.Room(0);
  EXPECT_EQ(Send(std::string(50'000, 'x')), Outcome::kBlocked);
  EXPECT_EQ(Send("x"), Outcome::kFull);
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  stream_.Room(0);
  EXPECT_EQ(Send(std::string(4'000, 'x')), Outcome::kBlocked);
  EXPECT_EQ(Send(std::string(4'000, 'x')), Outcome::kQueued);
  EXPECT_EQ(Send(std::string(4'000, 'x')), Outcome::kFull);
  EXPECT_EQ(Send("small"), Outcome::kQueued);
  EXPECT_EQ(queue_.SendControl(FrameType::kPong, 0, ""), Outcome::kQueued)
      << "control frames have their own room";
}

TEST_F(LpcSendQueue, ControlFramesAreBoundedToo) {
  stream_.Room(0);
  int queued = 0;
  while (queue_.SendControl(FrameType::kPong, 0, "") != Outcome::kFull) ASSERT_LT(++queued, 100'000);
  EXPECT_GT(queued, 1000);
  EXPECT_EQ(Send("a message"), Outcome::kQueued);
  stream_.Room(std::string::npos);
  Outcome outcome = queue_.Resume();
  while (outcome == Outcome::kBlocked) outcome = queue_.Resume();
  EXPECT_EQ(queue_.SendControl(FrameType::kPong, 0, ""), Outcome::kSent);
}

TEST_F(LpcSendQueue, AStreamThatTakesEverythingDoesNotKeepOneThreadForEver) {
  stream_.Room(0);
  for (int i = 0; i < 10'000; ++i) Send("x");
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kBlocked) << "the rest is for the next turn";
  while (queue_.Resume() == Outcome::kBlocked) {
  }
  EXPECT_EQ(ReadBack(stream_.taken()).size(), 10'000u);
}

TEST_F(LpcSendQueue, AClosedQueueTakesNothing) {
  stream_.Room(0);
  Send("dropped");
  queue_.Close();
  stream_.Room(std::string::npos);
  EXPECT_EQ(Send("x"), Outcome::kBroken);
  EXPECT_EQ(queue_.SendControl(FrameType::kPing, 0, ""), Outcome::kBroken);
  EXPECT_EQ(queue_.Resume(), Outcome::kBroken);
  EXPECT_FALSE(queue_.BlockedSince());
  EXPECT_TRUE(stream_.taken().empty());
  queue_.WaitUntilSent(std::chrono::steady_clock::now() + std::chrono::seconds(30));
}

TEST_F(LpcSendQueue, WhatWasWrittenWholeWasSentEvenIfThePeerHasGoneByThen) {
  stream_.OnWrite([this] { queue_.Close(); });
  EXPECT_EQ(Send("read, answered and over"), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()).size(), 1u);
  EXPECT_EQ(Send("too late"), Outcome::kBroken);
}

TEST_F(LpcSendQueue, WhatWasWrittenInPartWasNotSentWhenThePeerHasGone) {
  stream_.AtMostAtATime(10);
  stream_.OnWrite([this] {
    if (stream_.writes() == 1) queue_.Close();
  });
  stream_.Room(20);
  EXPECT_EQ(Send("not all of it fits"), Outcome::kBroken);
}

TEST_F(LpcSendQueue, ABrokenStreamIsReported) {
  for (const os::IoStatus status : {os::IoStatus::kClosed, os::IoStatus::kFailed}) {
    Taker stream;
    SendQueue queue(stream, options_);
    stream.Always(status);
    EXPECT_EQ(queue.Send(Message("x")), Outcome::kBroken);
    EXPECT_EQ(queue.SendControl(FrameType::kPing, 0, ""), Outcome::kBroken);
    EXPECT_EQ(queue.Send(Message(std::string(1'000'000, 'x'))), Outcome::kBroken);
  }
}

// For every N: the Nth write fails, and the sender learns of it.
TEST_F(LpcSendQueue, WhicheverWriteFails) {
  const std::string large(400'000, 'l');
  for (int fails_at = 1;; ++fails_at) {
    Taker stream;
    SendQueue queue(stream, options_);
    stream.AtMostAtATime(100'000);
    stream.FailAt(fails_at);
    Outcome outcome = queue.Send(Message(large));
    if (outcome == Outcome::kSent) outcome = queue.Send(Message("small"));
    if (stream.writes() < fails_at) {
      EXPECT_EQ(outcome, Outcome::kSent);
      EXPECT_GT(fails_at, 4);
      break;
    }
    EXPECT_EQ(outcome, Outcome::kBroken) << fails_at;
  }
}

TEST_F(LpcSendQueue, WaitsUntilEverythingIsTaken) {
  stream_.Room(0);
  Send("waiting");
  queue_.WaitUntilSent(std::chrono::steady_clock::now());  // time is up at once
  EXPECT_TRUE(stream_.taken().empty());
  std::atomic<bool> sent{false};
  std::thread waits([&] {
    queue_.WaitUntilSent(std::chrono::steady_clock::now() + std::chrono::seconds(30));
    sent = true;
  });
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  waits.join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(ReadBack(stream_.taken()).size(), 1u);
}

TEST_F(LpcSendQueue, ManyThreadsAtOnce) {
  stream_.AtMostAtATime(5'000);
  const std::string large(300'000, 'l');
  std::vector<std::thread> threads;
  std::atomic<bool> done{false};
  // What an I/O thread does when the stream is writable.
  std::thread resumes([&] {
    while (!done) queue_.Resume();
    while (queue_.Resume() == Outcome::kBlocked) {
    }
  });
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        const Outcome outcome = i % 10 == 0 ? Send(large) : Send(std::to_string(i));
        EXPECT_TRUE(outcome == Outcome::kSent || outcome == Outcome::kQueued || outcome == Outcome::kBlocked);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  done = true;
  resumes.join();
  const auto bodies = ReadBack(stream_.taken());
  EXPECT_EQ(bodies.size(), 400u);
  EXPECT_EQ(std::count(bodies.begin(), bodies.end(), large), 40);
}

// --- many small ones ---

TEST_F(LpcSendQueue, MessagesBehindWhichMoreFollowWaitForEachOther) {
  EXPECT_EQ(queue_.Send(Message("1"), true), Outcome::kGathered);
  EXPECT_EQ(queue_.Send(Message("2"), true), Outcome::kQueued) << "only the first asks for a flush";
  EXPECT_EQ(stream_.writes(), 0);
  EXPECT_EQ(queue_.Flush(), Outcome::kSent);
  EXPECT_EQ(stream_.writes(), 1);
  EXPECT_EQ(queue_.Flush(), Outcome::kQueued) << "nothing is left";
  EXPECT_EQ(queue_.Send(Message("3"), true), Outcome::kGathered) << "the next batch asks again";
  queue_.Flush();
  EXPECT_EQ(ReadBack(stream_.taken()), (std::vector<std::string>{"1", "2", "3"}));
}

TEST_F(LpcSendQueue, WhatWasGatheredGoesBeforeTheNextOrdinaryMessage) {
  queue_.Send(Message("1"), true);
  EXPECT_EQ(Send("2"), Outcome::kSent);
  queue_.Send(Message("3"), true);
  EXPECT_EQ(queue_.SendControl(FrameType::kPing, 0, ""), Outcome::kSent);
  queue_.Send(Message("4"), true);
  EXPECT_EQ(Send(std::string(1u << 20, 'L')), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()),
            (std::vector<std::string>{"1", "2", "3", "#5", "4", std::string(1u << 20, 'L')}));
}

TEST_F(LpcSendQueue, AFullBatchIsWrittenByWhoFilledIt) {
  const std::string body(1000, 'b');
  Outcome outcome = queue_.Send(Message(body), true);
  int gathered = 1;
  for (; outcome != Outcome::kSent; ++gathered) outcome = queue_.Send(Message(body), true);
  EXPECT_EQ(stream_.writes(), 1);
  EXPECT_LE(stream_.taken().size(), 36u << 10) << "bounded";
  EXPECT_GT(stream_.taken().size(), 24u << 10);
  EXPECT_EQ(ReadBack(stream_.taken()), std::vector<std::string>(static_cast<std::size_t>(gathered), body));
}

TEST_F(LpcSendQueue, ALargeMessageIsNotGathered) {
  EXPECT_EQ(queue_.Send(Message(std::string(100'000, 'b')), true), Outcome::kSent);
}

// It would be a frame that is longer than the peer takes.
TEST_F(LpcSendQueue, AMessageWithLongParamsAndAShortBodyIsNotGathered) {
  const LpcParams params{{"httpMime", std::string(3u << 20, 'p')}};
  OutgoingMessage message = Message("short");
  message.params = &params;
  EXPECT_EQ(queue_.Send(message, true), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()), std::vector<std::string>{"short"});
}

TEST_F(LpcSendQueue, GatheredMessagesAreKeptWhileTheStreamIsFull) {
  stream_.Room(10);
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  std::vector<std::string> all{"in front"};
  for (int i = 0; i < 100; ++i) {
    all.push_back(std::to_string(i) + std::string(1000, 'b'));
    EXPECT_EQ(queue_.Send(Message(all.back()), true), Outcome::kQueued);
  }
  EXPECT_EQ(queue_.Flush(), Outcome::kQueued) << "Resume will do it";
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()), all);
}

TEST_F(LpcSendQueue, GatheredMessagesCountAsQueuedBytes) {
  options_.max_queue_bytes = 100'000;
  stream_.Room(0);
  EXPECT_EQ(Send("in front"), Outcome::kBlocked);
  int taken = 0;
  while (queue_.Send(Message(std::string(1000, 'b')), true) == Outcome::kQueued) ASSERT_LT(++taken, 1000);
  EXPECT_LT(taken, 105);
  EXPECT_EQ(queue_.Send(Message("b"), true), Outcome::kFull);
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  EXPECT_EQ(queue_.Send(Message("b"), true), Outcome::kGathered) << "all of them were given back";
}

TEST_F(LpcSendQueue, AFlushThatIsCutShortGoesOnLater) {
  std::vector<std::string> all;
  for (int i = 0; i < 20; ++i) {
    all.push_back(std::to_string(i) + std::string(100, 'b'));
    queue_.Send(Message(all.back()), true);
  }
  stream_.Room(333);
  EXPECT_EQ(queue_.Flush(), Outcome::kBlocked);
  all.push_back("behind");
  EXPECT_EQ(queue_.Send(Message("behind"), true), Outcome::kQueued);
  stream_.Room(std::string::npos);
  EXPECT_EQ(queue_.Resume(), Outcome::kSent);
  EXPECT_EQ(ReadBack(stream_.taken()), all);
}

TEST_F(LpcSendQueue, AfterTheEndNothingIsGathered) {
  queue_.Send(Message("dropped with the queue"), true);
  queue_.Close();
  EXPECT_EQ(queue_.Send(Message("b"), true), Outcome::kBroken);
  EXPECT_EQ(queue_.Flush(), Outcome::kBroken);
}

TEST_F(LpcSendQueue, ThreadsThatGatherSideBySideLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string body = std::to_string(t) + ':' + std::to_string(i);
        Outcome outcome = queue_.Send(Message(body), i % 7 != 0);
        if (outcome == Outcome::kGathered && i % 3 == 0) outcome = queue_.Flush();
        while (outcome == Outcome::kBlocked) outcome = queue_.Resume();  // its turn was over
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  while (queue_.Flush() == Outcome::kBlocked) queue_.Resume();
  std::vector<int> next(kThreads, 0);
  for (const std::string& body : ReadBack(stream_.taken())) {
    const auto thread = static_cast<std::size_t>(body[0] - '0');
    EXPECT_EQ(body.substr(2), std::to_string(next[thread]++)) << "each thread's in their order";
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kEach));
}

}  // namespace
}  // namespace lpc::wire
