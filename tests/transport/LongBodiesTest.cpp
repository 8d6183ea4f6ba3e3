// Bodies that take long to arrive, and peers that stop in the middle of them.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "BadPeerScene.h"
#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "TransportSuite.h"
#include "support/Wait.h"
#include "wire/Frame.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;
using lpc::wire::kFlagMore;

constexpr int kPeers = 64;
const std::string kBody(200'000, 'l');

// A peer's message, which it sends in parts: in one frame, or in two.
class Slow {
 public:
  Slow(os::LocalTransport& transport, const FrameEnd& frame, int number)
      : id_("slow" + std::to_string(number)), peer_(transport, frame, id_) {
    const std::string payload = MessageBytes(kBody + id_, {}, "0", id_);
    if (number % 2 == 0) {
      bytes_ = FrameBytes(FrameType::kNotify, payload);
    } else {
      const std::size_t first = payload.size() / 2;
      bytes_ = FrameBytes(FrameType::kNotify, payload.substr(0, first), 0, kFlagMore, 7) +
               FrameBytes(FrameType::kChunk, payload.substr(first), 0, 0, 7);
    }
    rest_ = bytes_;
  }
  bool Send(std::size_t bytes) {
    const std::string_view part = rest_.substr(0, bytes);
    rest_.remove_prefix(part.size());
    return peer_.Write(part);
  }
  bool SendRest() { return Send(rest_.size()); }
  std::size_t left() const { return rest_.size(); }
  const std::string& id() const { return id_; }
  void Close() { peer_.Close(); }

 private:
  const std::string id_;
  RawPeer peer_;
  std::string bytes_;
  std::string_view rest_;
};

TEST_P(BadPeers, ThatStopInTheMiddleOfABodyHoldUpNobody) {
  Scene scene(transport());
  std::vector<std::unique_ptr<Slow>> peers;
  for (int i = 0; i < kPeers; ++i) {
    peers.push_back(std::make_unique<Slow>(transport(), scene.frame, i));
    ASSERT_TRUE(peers.back()->Send(100'000 + 500 * static_cast<std::size_t>(i))) << i;
  }
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(scene.BystanderIsServed()) << i;
  // Nor do those that go on by a byte now and then.
  for (int i = 0; i < 20; ++i) {
    for (const auto& peer : peers) ASSERT_TRUE(peer->Send(1));
    ASSERT_TRUE(scene.BystanderIsServed()) << i;
  }
  // Half of them finish, the others go away.
  for (int i = 0; i < kPeers; ++i) {
    Slow& peer = *peers[static_cast<std::size_t>(i)];
    if (i % 4 < 2) {
      ASSERT_TRUE(peer.SendRest());
    } else {
      peer.Close();
    }
  }
  const auto finished = [&] {
    std::size_t found = 0;
    for (const auto& message : scene.frame.Messages())
      found += message.body == kBody + message.src_id ? 1 : 0;
    return found;
  };
  EXPECT_TRUE(WaitFor([&] { return finished() == kPeers / 2; }, std::chrono::milliseconds(kLong)));
  for (int i = 0; i < kPeers; ++i) {
    const Slow& peer = *peers[static_cast<std::size_t>(i)];
    if (i % 4 >= 2) {
      EXPECT_TRUE(scene.frame.WaitStatus(peer.id(), "disconnected")) << peer.id();
    } else {
      EXPECT_EQ(scene.frame.StatusesOf(peer.id()), std::vector<std::string>{"connected"});
    }
  }
}

TEST_P(Stopping, AFrameDoesNotWaitForTheRestOfABody) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  Slow peer(transport(), frame, 0);
  ASSERT_TRUE(peer.Send(100'000));
  frame.Stop();
  EXPECT_TRUE(frame.Messages().empty());
  EXPECT_FALSE(peer.SendRest());
}

TEST_P(Messaging, AnAnswerOf60MebibytesArrivesWholeBothWays) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha");
  ASSERT_TRUE(plugin.Meet(frame));
  std::string body(60u << 20, '\0');
  std::uint32_t state = 12345;
  for (std::size_t i = 0; i < body.size(); i += 61) {
    state = state * 1664525 + 1013904223;
    body[i] = static_cast<char>(state >> 24);
  }
  std::string answer;
  EXPECT_EQ(frame.Ask("alpha", body, &answer), lpc::kOk);
  EXPECT_TRUE(answer == body);
  answer.clear();
  EXPECT_EQ(plugin.Ask(body, &answer), lpc::kOk);
  EXPECT_TRUE(answer == body);
}

// Counts how often a frame asks to be told that a stream takes more.
class CountingPoller final : public os::Poller {
 public:
  CountingPoller(std::unique_ptr<os::Poller> inner, std::atomic<int>& asked)
      : inner_(std::move(inner)), asked_(asked) {}
  bool Arm(os::Pollable& source, std::uint64_t token, unsigned interest) override {
    if ((interest & kWrite) != 0) ++asked_;
    return inner_->Arm(source, token, interest);
  }
  void Remove(os::Pollable& source) override { inner_->Remove(source); }
  std::optional<os::Readiness> Wait(int timeout_ms) override { return inner_->Wait(timeout_ms); }
  void Wake(unsigned threads) override { inner_->Wake(threads); }

 private:
  const std::unique_ptr<os::Poller> inner_;
  std::atomic<int>& asked_;
};

class CountingTransport final : public os::LocalTransport {
 public:
  explicit CountingTransport(os::LocalTransport& inner) : inner_(inner) {}
  os::EndpointResult<os::Listener> Listen(const std::string& name) override { return inner_.Listen(name); }
  os::EndpointResult<os::Stream> Connect(const std::string& name) override { return inner_.Connect(name); }
  std::unique_ptr<os::Poller> CreatePoller() override {
    return std::make_unique<CountingPoller>(inner_.CreatePoller(), asked);
  }

  std::atomic<int> asked{0};

 private:
  os::LocalTransport& inner_;
};

TEST_P(Messaging, ACallerThatWaitsWritesItsLongBodyOnByItself) {
  CountingTransport counting(transport());
  FrameEnd frame(counting);
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  PluginEnd plugin(transport(), "alpha", [](PluginEnd& self, const tag_LPCCallBackData& data) {
    self.Answer(data, std::to_string(data.body.size()));
  });
  ASSERT_TRUE(plugin.Meet(frame));
  if (RawPeer peer(transport()); !peer.stream().CanWaitForRoom()) GTEST_SKIP() << "these streams cannot";
  const std::string body(8u << 20, 'w');
  // A thread of the loop may be reading just when a call begins; then it is another one's to write on.
  EXPECT_TRUE(WaitFor([&] {
    const int before = counting.asked;
    std::string answer;
    EXPECT_EQ(frame.Ask("alpha", body, &answer), lpc::kOk);
    EXPECT_EQ(answer, std::to_string(body.size()));
    return counting.asked == before;
  }));
}

TEST_P(Messaging, ACallerThatGivesUpLeavesTheRestOfItsBodyToTheOthers) {
  FrameEnd frame(transport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  RawPeer peer(transport(), frame, "raw");
  ASSERT_TRUE(peer.connected());
  const std::string body(3u << 20, 'g');
  EXPECT_EQ(frame.Ask("raw", body, nullptr, 20), lpc::kTimeOut);
  std::size_t read = 0;
  while (read < body.size()) {
    const auto part = peer.Read();
    ASSERT_TRUE(part) << read;
    if (part->type() != FrameType::kCancel) read += part->payload.size();
  }
  EXPECT_EQ(frame.Notify("raw", "behind"), lpc::kOk);
  EXPECT_TRUE(peer.ReadUntil(FrameType::kNotify));
}

}  // namespace
}  // namespace tolm::test
