#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "GuardScene.h"
#include "InitLogical.h"
#include "TolmBase/Log.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// Many threads on the guard's side at once.
class GuardConcurrency : public GuardTest {
 protected:
  GuardConcurrency() { log_.SetLevel(Tolm::Base::kLogLevelOff); }

  static Tolm::Base::CMessageLoopDyThreadPool& Pool() {
    return Tolm::Base::CSingleton<CMessageLoopForWebSocket>::Instance();
  }
  /// The server's callback, without a server.
  static void Happens(std::int32_t socket_id, std::int32_t type) {
    Endpoint().WebsocketTolmGuardServerMsgCallback(socket_id, {true, type, 0, 0, nullptr});
  }

  /// Connections that exist: a send to any other one fails, as the real server's does.
  class Connections {
   public:
    void Open(std::int32_t socket_id) {
      const std::lock_guard lock(mutex_);
      open_.insert(socket_id);
    }
    void Close(std::int32_t socket_id) {
      const std::lock_guard lock(mutex_);
      open_.erase(socket_id);
    }
    int Send(const SentFrame& frame) {
      const std::lock_guard lock(mutex_);
      if (!open_.contains(frame.socket_id)) return Tolm::Net::kNetNoSuchHandle;
      if (MethodOf(frame.data) == "NotifyFrameInitState") ++notices_[frame.socket_id];
      return 0;
    }
    std::map<std::int32_t, int> Notices() const {
      const std::lock_guard lock(mutex_);
      return notices_;
    }

   private:
    mutable std::mutex mutex_;
    std::set<std::int32_t> open_;          // guarded by mutex_
    std::map<std::int32_t, int> notices_;  // guarded by mutex_; that were handed over
  };

  void Use(Connections& connections) {
    net_.send = [&](const SentFrame& frame) { return connections.Send(frame); };
    waits_.how_long = [](std::int32_t) { return 0; };
  }
  void Forget() {
    ForgetEverything(Endpoint());
    ForgetEverything(Guard());
    net_.Reset();
  }
};

TEST_F(GuardConcurrency, ManySendersEachGetTheirOwnReply) {
  Register(7);
  AnswerDirectly();
  std::atomic<int> right{0};
  {
    std::vector<std::jthread> senders;
    for (int s = 0; s < 8; ++s) {
      senders.emplace_back([&, s] {
        for (int i = 0; i < 25; ++i) {
          const std::string guid = std::to_string(s) + "." + std::to_string(i);
          const std::string method = i % 2 == 0 ? "NotifyLPCFrameInit" : "SetProcessGuardStateList";
          std::string reply;
          Endpoint().SendAndWaitResponse(reply, Asks(method, guid), guid, 5000);
          if (reply == Answers(method, guid)) ++right;
        }
      });
    }
  }
  EXPECT_EQ(right, 200);
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
}

TEST_F(GuardConcurrency, TheSameGuidFromManySendersIsSentOnce) {
  Register(7);
  {
    std::vector<std::jthread> senders;
    for (int s = 0; s < 8; ++s) {
      senders.emplace_back([] {
        std::string reply;
        Endpoint().SendAndWaitResponse(reply, "{}", "g", 5000);
      });
    }
  }
  EXPECT_EQ(net_.Sent().size(), 1u);
}

TEST_F(GuardConcurrency, AnAnnouncementAndAHandshakeAtOnceGiveOneNotice) {
  for (int round = 0; round < 200; ++round) {
    Forget();
    Connections connections;
    Use(connections);
    {
      std::jthread announcement([] { Guard().NotifyFrameInitedFinished("c"); });
      std::jthread handshake([&] {
        connections.Open(7);
        Register(7);
      });
    }
    ASSERT_THAT(connections.Notices(), ElementsAre(Pair(7, 1))) << round;
  }
  net_.Reset();
}

TEST_F(GuardConcurrency, AnAnnouncementWhileTheGuardComesBackGivesOneNoticeToTheNewConnection) {
  for (int round = 0; round < 200; ++round) {
    Forget();
    Connections connections;
    Use(connections);
    connections.Open(7);
    Register(7);
    Pool().Reopen();
    Pool().Start(2, 10, 5);
    {
      std::jthread announcement([] { Guard().NotifyFrameInitedFinished("c"); });
      std::jthread server([&] {
        connections.Close(7);
        Happens(7, Tolm::Net::kWebsocketClose);
        connections.Open(8);
        Happens(8, Tolm::Net::kWebsocketHandshake);
      });
    }
    Pool().Stop(true);
    std::map<std::int32_t, int> notices = connections.Notices();
    ASSERT_LE(notices[7], 1) << round;
    ASSERT_EQ(notices[8], 1) << round;
  }
  net_.Reset();
}

TEST_F(GuardConcurrency, AnnouncementsFromManyThreadsGiveOneNotice) {
  for (int round = 0; round < 50; ++round) {
    Forget();
    Connections connections;
    Use(connections);
    connections.Open(7);
    Register(7);
    {
      std::vector<std::jthread> threads;
      for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] { Guard().NotifyFrameInitedFinished(std::to_string(i)); });
      }
    }
    ASSERT_THAT(connections.Notices(), ElementsAre(Pair(7, 1))) << round;
  }
  net_.Reset();
}

TEST_F(GuardConcurrency, ANoticeThatIsUnderWayToAConnectionThatClosesIsRepeatedToTheNextOne) {
  Register(7);
  Gate gate;
  waits_.how_long = [](std::int32_t) { return 0; };
  net_.send = [&](const SentFrame& frame) {
    if (frame.socket_id == 7 && MethodOf(frame.data) == "NotifyFrameInitState") gate.Wait();
    return 0;
  };
  std::jthread announcement([] { Guard().NotifyFrameInitedFinished("c"); });
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  std::jthread events([] {
    Endpoint().TolmGuardOnRawMsgEIT(7, Tolm::Net::kWebsocketClose, 0, {});
    Register(8);
  });
  ASSERT_TRUE(WaitFor([] { return Endpoint().GetSessionId() == 8; }));
  gate.Open();
  announcement.join();
  events.join();
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(7, 1), Pair(8, 1)));
}

TEST_F(GuardConcurrency, EverythingAtOnce) {
  net_.send = [](const SentFrame& frame) { return frame.socket_id % 2; };
  waits_.how_long = [](std::int32_t) { return 0; };
  List(Plugins({"A", "B"}));
  {
    std::list<std::jthread> threads;
    const auto again = [&](auto what) {
      threads.emplace_back([what] {
        for (int i = 0; i < 100; ++i) what(i);
      });
    };
    again([](int i) { Guard().NotifyFrameInitedFinished(std::to_string(i)); });
    again([](int) { Guard().SetProcessGuardStateList({{"A", false}}); });
    again([](int) { Guard().NotifyState(); });
    again([](int i) { Register(i); });
    again([](int i) { Endpoint().TolmGuardOnRawMsgEIT(i, Tolm::Net::kWebsocketClose, 0, {}); });
    again([](int i) { Endpoint().DealMessage(i, Asks("GetProcessInitStateList", "g")); });
    again([](int i) { Endpoint().DealMessage(i, Answers("NotifyLPCFrameInit", std::to_string(i))); });
    again([](int) { Endpoint().DealMessage(1, ProcessState(R"("state":0,"processId":"A")")); });
  }
  // Nothing is stuck: the next guard is told.
  Endpoint().TolmGuardOnRawMsgEIT(1, Tolm::Net::kWebsocketClose, 0, {});
  net_.Reset();
  Register(300);
  EXPECT_THAT(NoticesByConnection(), ElementsAre(Pair(300, 1)));
}

TEST_F(GuardConcurrency, StartsAndStopsWithAChattyGuardLoseNothingAndHangNowhere) {
  std::atomic<bool> done{false};
  std::jthread guard([&] {
    for (std::int32_t id = 1; !done; ++id) {
      net_.Handshake(id);
      net_.Text(id, Asks("GetProcessInitStateList", "g"));
      net_.Close(id);
    }
  });
  for (int life = 0; life < 10; ++life) {
    EXPECT_EQ(StartWithPort(Plugins({"A"})), 0);
    TolmLPCFrameNotifyStartPlugins("c");
    EXPECT_EQ(TolmLPCFrameUnInit(), 0);
  }
  done = true;
}

}  // namespace
}  // namespace tolm::test
