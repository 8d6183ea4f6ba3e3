// What the transport relies on, of every kind of stream.

#include "os/LocalStream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

using tolm::test::WaitFor;

class OsLocalStream : public testing::TestWithParam<bool> {
 protected:
  OsLocalStream() {
    if (GetParam()) {
      directory_ = std::make_unique<tolm::test::RuntimeDirectory>();
      transport_ = &SystemTransport();
    } else {
      memory_ = CreateMemoryTransport(1000);
      transport_ = memory_.get();
    }
    listener_ = transport_->Listen("name").value;
    poller_ = transport_->CreatePoller();
  }
  void Connect() {
    near_ = transport_->Connect("name").value;
    ASSERT_TRUE(near_);
    far_ = listener_->Accept().stream;
    ASSERT_TRUE(far_);
  }
  static IoResult Write(Stream& stream, std::string_view text) {
    const ConstBuffer buffer{text.data(), text.size()};
    return stream.Write(&buffer, 1);
  }
  static std::string Read(Stream& stream, std::size_t most = 100) {
    std::string text(most, '\0');
    const MutableBuffer buffer{text.data(), text.size()};
    const IoResult result = stream.Read(&buffer, 1);
    last_status_ = result.status;
    text.resize(result.status == IoStatus::kDone ? result.bytes : 0);
    return text;
  }
  void Fill(Stream& stream) {
    const std::string much(4096, 'f');
    while (Write(stream, much).status == IoStatus::kDone) {
    }
  }

  std::unique_ptr<tolm::test::RuntimeDirectory> directory_;
  std::unique_ptr<LocalTransport> memory_;
  LocalTransport* transport_ = nullptr;
  std::unique_ptr<Poller> poller_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<Stream> near_;
  std::unique_ptr<Stream> far_;
  static inline IoStatus last_status_ = IoStatus::kDone;
};

TEST_P(OsLocalStream, CarriesBytesBothWays) {
  Connect();
  EXPECT_EQ(Write(*near_, "there").bytes, 5u);
  EXPECT_EQ(Read(*far_), "there");
  EXPECT_EQ(Write(*far_, "back").bytes, 4u);
  EXPECT_EQ(Read(*near_, 2), "ba");
  EXPECT_EQ(Read(*near_), "ck");
  EXPECT_EQ(Read(*near_), "");
  EXPECT_EQ(last_status_, IoStatus::kWouldBlock);
}

TEST_P(OsLocalStream, GathersAndScatters) {
  Connect();
  const ConstBuffer out[] = {{"one", 3}, {"", 0}, {"two", 3}, {"three", 5}};
  EXPECT_EQ(near_->Write(out, 4).bytes, 11u);
  char first[4];
  char second[100];
  const MutableBuffer in[] = {{first, sizeof first}, {second, sizeof second}};
  EXPECT_EQ(far_->Read(in, 2).bytes, 11u);
  EXPECT_EQ(std::string(first, 4) + std::string(second, 7), "onetwothree");
}

TEST_P(OsLocalStream, SaysWhenNothingMoreFits) {
  Connect();
  Fill(*near_);
  EXPECT_EQ(Write(*near_, "x").status, IoStatus::kWouldBlock);
  while (!Read(*far_, 100'000).empty()) {
  }
  EXPECT_EQ(Write(*near_, "x").status, IoStatus::kDone);
}

TEST_P(OsLocalStream, WhatWasSentBeforeTheEndIsStillRead) {
  Connect();
  ASSERT_EQ(Write(*near_, "last words").status, IoStatus::kDone);
  near_.reset();
  EXPECT_EQ(Read(*far_), "last words");
  EXPECT_EQ(Read(*far_), "");
  EXPECT_EQ(last_status_, IoStatus::kClosed);
  EXPECT_EQ(Write(*far_, "x").status, IoStatus::kClosed);
}

TEST_P(OsLocalStream, ShutdownEndsBothEnds) {
  Connect();
  near_->Shutdown();
  near_->Shutdown();
  EXPECT_EQ(Read(*near_), "");
  EXPECT_EQ(last_status_, IoStatus::kClosed);
  EXPECT_EQ(Read(*far_), "");
  EXPECT_EQ(last_status_, IoStatus::kClosed);
  EXPECT_EQ(Write(*near_, "x").status, IoStatus::kClosed);
  EXPECT_EQ(Write(*far_, "x").status, IoStatus::kClosed);
}

TEST_P(OsLocalStream, BothEndsAreOfTheSameUser) {
  Connect();
  EXPECT_TRUE(near_->Peer().same_user);
  EXPECT_TRUE(far_->Peer().same_user);
}

TEST_P(OsLocalStream, WaitsUntilSomethingCanBeRead) {
  Connect();
  EXPECT_FALSE(far_->Wait(false, 0).readable);
  EXPECT_FALSE(far_->Wait(false, 5).readable);
  Write(*near_, "x");
  EXPECT_TRUE(far_->Wait(false, 0).readable);
  Read(*far_);
  std::thread writes([this] { Write(*near_, "y"); });
  EXPECT_TRUE(far_->Wait(false, 30'000).readable);
  writes.join();
  Read(*far_);
  std::thread ends([this] { far_->Shutdown(); });
  EXPECT_TRUE(far_->Wait(false, 30'000).readable) << "its own end is something to read";
  ends.join();
}

TEST_P(OsLocalStream, AWaitForRoomEndsAlsoWhenSomethingCanBeRead) {
  Connect();
  Fill(*near_);
  StreamState state = near_->Wait(true, 0);
  EXPECT_FALSE(state.readable);
  EXPECT_FALSE(state.writable);
  Write(*far_, "x");
  state = near_->Wait(true, 30'000);
  EXPECT_TRUE(state.readable);
  EXPECT_FALSE(state.writable);
  EXPECT_FALSE(near_->Wait(false, 0).writable) << "nobody asked";
  EXPECT_EQ(Read(*near_), "x");
  std::thread ends([this] { near_->Shutdown(); });
  EXPECT_TRUE(near_->Wait(true, 30'000).readable);
  ends.join();
}

TEST_P(OsLocalStream, AWaitForRoomEndsWhenThereIsSome) {
  Connect();
  if (!near_->CanWaitForRoom()) GTEST_SKIP() << "this one cannot";
  EXPECT_TRUE(near_->Wait(true, 0).writable);
  Fill(*near_);
  std::thread reads([this] {
    while (!Read(*far_, 100'000).empty()) {
    }
  });
  const StreamState state = near_->Wait(true, 30'000);
  EXPECT_TRUE(state.writable);
  EXPECT_FALSE(state.readable);
  reads.join();
  EXPECT_EQ(Write(*near_, "more").status, IoStatus::kDone);
  Write(*far_, "x");
  const StreamState both = near_->Wait(true, 0);
  EXPECT_TRUE(both.readable);
  EXPECT_TRUE(both.writable);
}

TEST_P(OsLocalStream, HintsOfBulkChangeNothingThatArrives) {
  Connect();
  std::string sent;
  std::string received;
  const auto write = [&](const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
      const IoResult result = Write(*near_, rest);
      if (result.status == IoStatus::kDone) rest.remove_prefix(result.bytes);
      if (result.status == IoStatus::kWouldBlock) received += Read(*far_, 10'000);
    }
    sent += text;
  };
  const std::string much(1'000'000, 'b');
  for (const bool bulk : {false, false, true, true, false, true, false}) {
    near_->SetBulk(bulk);
    write(bulk ? much : "small");
    far_->SetBulk(!bulk);
  }
  near_->Shutdown();
  for (std::string part; !(part = Read(*far_, 100'000)).empty();) received += part;
  EXPECT_TRUE(received == sent);
}

// What stands on its way when the hint is taken back stays there, and what comes behind it waits as usual.
TEST_P(OsLocalStream, ASmallMessageBehindBulkHasItsTurn) {
  Connect();
  const auto fill = [this] {
    std::size_t bytes = 0;
    const std::string much(4096, 'f');
    for (IoResult result{}; (result = Write(*near_, much)).status == IoStatus::kDone;) bytes += result.bytes;
    return bytes;
  };
  near_->SetBulk(true);
  std::size_t on_its_way = fill();
  near_->SetBulk(false);
  EXPECT_EQ(Write(*near_, "s").status, IoStatus::kWouldBlock);
  while (Write(*near_, "s").status != IoStatus::kDone) {
    const std::size_t read = Read(*far_, 10'000).size();
    ASSERT_GT(read, 0u);
    ASSERT_LE(read, on_its_way);
    on_its_way -= read;
  }
  std::string rest;
  while (rest.size() < on_its_way + 1) {
    const std::string part = Read(*far_, 100'000);
    ASSERT_FALSE(part.empty());
    rest += part;
  }
  EXPECT_EQ(rest, std::string(on_its_way, 'f') + "s");
}

TEST_P(OsLocalStream, AcceptSaysWhenThereIsNobody) {
  const Listener::Accepted none = listener_->Accept();
  EXPECT_FALSE(none.stream);
  EXPECT_EQ(none.status, IoStatus::kWouldBlock);
}

TEST_P(OsLocalStream, ANameIsTakenOnceAndFreeAfterwards) {
  EXPECT_EQ(transport_->Listen("name").error, EndpointError::kInUse);
  EXPECT_TRUE(transport_->Listen("another").value);
  listener_.reset();
  EXPECT_EQ(transport_->Connect("name").error, EndpointError::kNobodyListens);
  EXPECT_TRUE(transport_->Listen("name").value);
}

TEST_P(OsLocalStream, AWrongNameIsOneForBoth) {
  for (const char* name : {"", ".x", "a/b"}) {
    EXPECT_EQ(transport_->Listen(name).error, EndpointError::kNameInvalid);
    EXPECT_EQ(transport_->Connect(name).error, EndpointError::kNameInvalid);
    EXPECT_FALSE(transport_->Connect(name).message.empty());
  }
}

TEST_P(OsLocalStream, WhoWasNotAcceptedIsEndedWithTheListener) {
  near_ = transport_->Connect("name").value;
  ASSERT_TRUE(near_);
  listener_.reset();
  Read(*near_);
  EXPECT_EQ(last_status_, IoStatus::kClosed);
}

// --- the poller ---

TEST_P(OsLocalStream, AReadinessIsGivenOutOnce) {
  Connect();
  ASSERT_TRUE(poller_->Arm(*far_, 7, Poller::kRead));
  EXPECT_FALSE(poller_->Wait(0));
  Write(*near_, "x");
  const auto ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_EQ(ready->token, 7u);
  EXPECT_TRUE(ready->readable);
  EXPECT_FALSE(ready->writable);
  Write(*near_, "y");
  EXPECT_FALSE(poller_->Wait(10)) << "nobody asked again";
  ASSERT_TRUE(poller_->Arm(*far_, 8, Poller::kRead));
  EXPECT_EQ(poller_->Wait(30'000)->token, 8u) << "what is ready already is reported at once";
  poller_->Remove(*far_);
}

TEST_P(OsLocalStream, ThePollerTellsReadingFromWriting) {
  Connect();
  ASSERT_TRUE(poller_->Arm(*near_, 1, Poller::kWrite));
  auto ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_TRUE(ready->writable);
  EXPECT_FALSE(ready->readable);
  Fill(*near_);
  ASSERT_TRUE(poller_->Arm(*near_, 1, Poller::kWrite));
  EXPECT_FALSE(poller_->Wait(10));
  while (!Read(*far_, 100'000).empty()) {
  }
  ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_TRUE(ready->writable);
  Write(*far_, "x");
  ASSERT_TRUE(poller_->Arm(*near_, 1, Poller::kRead | Poller::kWrite));
  ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_TRUE(ready->readable);
  EXPECT_TRUE(ready->writable);
  poller_->Remove(*near_);
}

TEST_P(OsLocalStream, TheEndIsReportedWhateverWasAskedFor) {
  for (const unsigned interest : {0u, Poller::kRead, Poller::kWrite, Poller::kRead | Poller::kWrite}) {
    for (const bool own : {true, false}) {
      Connect();
      ASSERT_TRUE(poller_->Arm(*far_, 9, interest));
      (own ? far_ : near_)->Shutdown();
      const auto ready = poller_->Wait(30'000);
      ASSERT_TRUE(ready) << interest << own;
      EXPECT_EQ(ready->token, 9u);
      EXPECT_TRUE(ready->readable || interest == Poller::kWrite);
      poller_->Remove(*far_);
    }
  }
}

TEST_P(OsLocalStream, WithoutInterestOnlyTheEndIsReported) {
  Connect();
  Write(*near_, "x");
  ASSERT_TRUE(poller_->Arm(*far_, 3, 0));
  EXPECT_FALSE(poller_->Wait(10));
  near_.reset();
  const auto ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_TRUE(ready->readable);
  poller_->Remove(*far_);
}

TEST_P(OsLocalStream, WhatIsRemovedIsNotReported) {
  Connect();
  ASSERT_TRUE(poller_->Arm(*far_, 3, Poller::kRead));
  poller_->Remove(*far_);
  Write(*near_, "x");
  EXPECT_FALSE(poller_->Wait(10));
  ASSERT_TRUE(poller_->Arm(*far_, 4, Poller::kRead)) << "and may be watched again";
  EXPECT_EQ(poller_->Wait(30'000)->token, 4u);
  poller_->Remove(*far_);
}

TEST_P(OsLocalStream, WhatAThreadHasAskedForIsToldAlsoWhenItHasEnded) {
  Connect();
  for (int round = 0; round < 20; ++round) {
    std::thread([this] {
      ASSERT_TRUE(poller_->Arm(*far_, 6, Poller::kRead));
      EXPECT_FALSE(far_->Wait(false, 0).readable);
    }).join();
    ASSERT_EQ(Write(*near_, "x").status, IoStatus::kDone);
    const auto ready = poller_->Wait(30'000);
    ASSERT_TRUE(ready) << round;
    EXPECT_EQ(ready->token, 6u);
    EXPECT_EQ(Read(*far_), "x");
  }
  poller_->Remove(*far_);
}

TEST_P(OsLocalStream, WhatAThreadHasWrittenArrivesAlsoWhenItHasEnded) {
  Connect();
  ASSERT_TRUE(poller_->Arm(*near_, 1, 0));
  std::size_t written = 0;
  std::thread([&] {
    const std::string much(4096, 'f');
    for (;;) {
      const IoResult result = Write(*near_, much);
      if (result.status != IoStatus::kDone) break;
      written += result.bytes;
    }
  }).join();
  std::size_t arrived = 0;
  EXPECT_TRUE(WaitFor([&] { return (arrived += Read(*far_, 100'000).size()) == written; }))
      << arrived << " of " << written;
  ASSERT_TRUE(poller_->Arm(*near_, 2, Poller::kWrite));
  const auto ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_TRUE(ready->writable);
  poller_->Remove(*near_);
}

TEST_P(OsLocalStream, AListenerIsReadableWhenSomebodyComes) {
  ASSERT_TRUE(poller_->Arm(*listener_, 5, Poller::kRead));
  EXPECT_FALSE(poller_->Wait(0));
  near_ = transport_->Connect("name").value;
  const auto ready = poller_->Wait(30'000);
  ASSERT_TRUE(ready);
  EXPECT_EQ(ready->token, 5u);
  EXPECT_TRUE(ready->readable);
  poller_->Remove(*listener_);
}

TEST_P(OsLocalStream, WakeLetsSoManyThreadsGoNowOrLater) {
  poller_->Wake(2);
  EXPECT_FALSE(poller_->Wait(-1));
  EXPECT_FALSE(poller_->Wait(-1));
  constexpr unsigned kThreads = 5;
  std::vector<std::thread> threads;
  std::atomic<unsigned> returned{0};
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      poller_->Wait(-1);
      ++returned;
    });
  }
  poller_->Wake(kThreads);
  EXPECT_TRUE(WaitFor([&] { return returned == kThreads; }));
  for (auto& thread : threads) thread.join();
}

TEST_P(OsLocalStream, EachReadinessGoesToOneThread) {
  Connect();
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<bool> done{false};
  std::atomic<int> inside{0};
  std::atomic<int> taken{0};
  std::atomic<bool> together{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!done) {
        const auto ready = poller_->Wait(-1);
        if (!ready) continue;
        if (++inside > 1) together = true;
        char byte = 0;
        const MutableBuffer buffer{&byte, 1};
        if (far_->Read(&buffer, 1).status == IoStatus::kDone) ++taken;
        --inside;
        poller_->Arm(*far_, 1, Poller::kRead);
      }
    });
  }
  ASSERT_TRUE(poller_->Arm(*far_, 1, Poller::kRead));
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_EQ(Write(*near_, "x").status, IoStatus::kDone);
    if (i % 10 == 0) {
      EXPECT_TRUE(WaitFor([&] { return taken == i + 1; }));
    }
  }
  EXPECT_TRUE(WaitFor([&] { return taken == kRounds; }));
  done = true;
  poller_->Wake(kThreads);
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(together);
  poller_->Remove(*far_);
}

INSTANTIATE_TEST_SUITE_P(System, OsLocalStream, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Memory, OsLocalStream, testing::Values(false));

}  // namespace
}  // namespace os
