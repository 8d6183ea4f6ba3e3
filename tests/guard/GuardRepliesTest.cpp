#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "GuardScene.h"
#include "net/ConditionAndMutex.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr char kInit[] = "NotifyLPCFrameInit";

/// Senders that wait, and the replies that are theirs.
class GuardReplies : public GuardTest {
 protected:
  GuardReplies() {
    Register(7);
    FromNowOn();
  }

  std::string Ask(const std::string& guid, std::int32_t timeout_ms = 5000) {
    std::string reply = "untouched";
    Endpoint().SendAndWaitResponse(reply, Asks(kInit, guid), guid, timeout_ms);
    return reply;
  }

  /// A sender that waits on a thread of its own until it is answered.
  class Sender {
   public:
    explicit Sender(const std::string& guid)
        : thread_([this, guid] {
            std::string reply;
            Endpoint().SendAndWaitResponse(reply, Asks(kInit, guid), guid, 5000);
            reply_ = reply;
            done_ = true;
          }) {
      EXPECT_TRUE(WaitFor([&] { return Endpoint().FindResponseWaiter(guid) != nullptr; }));
      waiter_ = Endpoint().FindResponseWaiter(guid);
    }
    /// When this returns, the sender is inside its wait, or beyond it.
    void AwaitWaiting() {
      EXPECT_TRUE(WaitFor([] { return Journal::Count("wait 5000") == 1; }));
      const os::MutexLock lock(waiter_->mutex);
    }
    void WakeWithoutReply() {
      const os::MutexLock lock(waiter_->mutex);
      waiter_->condition.notify_all();
    }
    bool IsDone() const { return done_; }
    std::string Reply() {
      thread_.join();
      return reply_;
    }

   private:
    std::shared_ptr<ConditionAndMutex> waiter_;
    std::string reply_;
    std::atomic<bool> done_{false};
    std::jthread thread_;
  };
};

TEST_F(GuardReplies, TheReplyIsTheGuardsTextByteForByte) {
  WaitForAnswers();
  const std::string reply =
      " {\"extra\":[1, 2],\"requestData\" : {\"method\":\"NotifyLPCFrameInit\"},\"guid\":\"g\"} ";
  Sender sender("g");
  sender.AwaitWaiting();
  Endpoint().DealMessage(3, reply);
  EXPECT_EQ(sender.Reply(), reply);
  EXPECT_EQ(OnlySent().socket_id, 7);
  EXPECT_EQ(OnlySent().data, Asks(kInit, "g"));
}

TEST_F(GuardReplies, AReplyThatWasTakenIsNotKeptAndItsWaiterIsForgotten) {
  WaitForAnswers();
  Sender sender("g");
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_EQ(sender.Reply(), Answers(kInit, "g"));
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
  EXPECT_THAT(Waiters(Endpoint()), ElementsAre(Pair("g", false)));
}

TEST_F(GuardReplies, BothMethodsThatAreAnsweredWakeASender) {
  WaitForAnswers();
  for (const std::string method : {"NotifyLPCFrameInit", "SetProcessGuardStateList"}) {
    Journal::Clear();
    Sender sender(method);
    Endpoint().DealMessage(7, Answers(method, method));
    EXPECT_EQ(sender.Reply(), Answers(method, method));
  }
}

TEST_F(GuardReplies, AReplyThatComesBeforeTheWaitHasBegunIsHeard) {
  std::jthread answer;
  net_.send = [&](const SentFrame& frame) {
    answer = std::jthread([guid = GuidOf(frame.data)] { Endpoint().DealMessage(7, Answers(kInit, guid)); });
    return 0;
  };
  // The guard has answered, and its answer was dispatched, while the sender is still on its way.
  waits_.how_long = [](std::int32_t) {
    EXPECT_TRUE(WaitFor([] { return !StoredReplies(Endpoint()).empty(); }));
    return 20000;
  };
  EXPECT_EQ(Ask("g"), Answers(kInit, "g"));
}

TEST_F(GuardReplies, AGuardThatAnswersAtOnceIsHeardTwoHundredTimes) {
  log_.SetLevel(5);
  AnswerDirectly();
  for (int i = 0; i < 200; ++i) {
    const std::string guid = std::to_string(i);
    ASSERT_EQ(Ask(guid), Answers(kInit, guid));
    JoinAnswers();
  }
}

TEST_F(GuardReplies, AWakeUpWithoutAReplyDoesNotEndTheWait) {
  WaitForAnswers();
  Sender sender("g");
  sender.AwaitWaiting();
  for (int i = 0; i < 20; ++i) sender.WakeWithoutReply();
  EXPECT_FALSE(WaitFor([&] { return sender.IsDone(); }, std::chrono::milliseconds(30)));
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_EQ(sender.Reply(), Answers(kInit, "g"));
}

TEST_F(GuardReplies, AReplyToAnotherSenderDoesNotEndTheWait) {
  WaitForAnswers();
  Sender sender("g");
  sender.AwaitWaiting();
  Endpoint().DealMessage(7, Answers(kInit, "h"));
  Endpoint().DealMessage(7, Answers(kInit, "G"));
  EXPECT_FALSE(WaitFor([&] { return sender.IsDone(); }, std::chrono::milliseconds(30)));
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_EQ(sender.Reply(), Answers(kInit, "g"));
  EXPECT_THAT(StoredReplies(Endpoint()),
              ElementsAre(Pair("G", Answers(kInit, "G")), Pair("h", Answers(kInit, "h"))));
}

TEST_F(GuardReplies, AMessageWithTheGuidAndAnotherMethodWakesNobody) {
  waits_.how_long = [](std::int32_t) { return 20; };
  std::jthread answer;
  net_.send = [&](const SentFrame& frame) {
    if (MethodOf(frame.data) != kInit) return 0;
    answer = std::jthread([] {
      for (const char* method : {"NotifyFrameInitState", "NotifyState", "GetMianProcessPath", ""}) {
        Endpoint().DealMessage(7, Asks(method, "g"));
      }
      Endpoint().DealMessage(7, R"({"guid":"g","code":"0"})");
    });
    return 0;
  };
  EXPECT_EQ(Ask("g"), "");
  answer.join();
  EXPECT_THAT(StoredReplies(Endpoint()), IsEmpty());
}

TEST_F(GuardReplies, AFailedSendIsNotLookedAt) {
  WaitForAnswers();
  net_.send = 1;
  Sender sender("g");
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_EQ(sender.Reply(), Answers(kInit, "g"));
}

// Time-outs.

TEST_F(GuardReplies, WithoutAReplyTheSenderGetsNothingAfterItsTimeOut) {
  EXPECT_EQ(Ask("g", 1234), "");
  EXPECT_THAT(Journal::Of("wait"), ElementsAre("wait 1234"));
  EXPECT_THAT(Waiters(Endpoint()), ElementsAre(Pair("g", false)));
}

TEST_F(GuardReplies, AReplyThatIsLateIsKeptAndWakesNobody) {
  Ask("g");
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_THAT(StoredReplies(Endpoint()), ElementsAre(Pair("g", Answers(kInit, "g"))));
  EXPECT_EQ(Endpoint().FindResponseWaiter("g"), nullptr);
}

TEST_F(GuardReplies, AReplyToNothingIsKept) {
  Endpoint().DealMessage(7, Answers(kInit, "never asked"));
  Endpoint().DealMessage(7, R"({"requestData":{"method":"SetProcessGuardStateList"}})");
  EXPECT_THAT(StoredReplies(Endpoint()),
              ElementsAre(Pair("", R"({"requestData":{"method":"SetProcessGuardStateList"}})"),
                          Pair("never asked", Answers(kInit, "never asked"))));
  EXPECT_THAT(Waiters(Endpoint()), IsEmpty());
}

TEST_F(GuardReplies, OfTwoRepliesTheSecondIsKept) {
  EXPECT_TRUE(Endpoint().SaveResponse("g", "one"));
  EXPECT_TRUE(Endpoint().SaveResponse("g", "two"));
  EXPECT_THAT(StoredReplies(Endpoint()), ElementsAre(Pair("g", "two")));
}

TEST_F(GuardReplies, AReplyThatComesTwiceAnswersOnlyOnce) {
  WaitForAnswers();
  Sender sender("g");
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_EQ(sender.Reply(), Answers(kInit, "g"));
  Endpoint().DealMessage(7, Answers(kInit, "g"));
  EXPECT_THAT(StoredReplies(Endpoint()), ElementsAre(Pair("g", Answers(kInit, "g"))));
  waits_.how_long = [](std::int32_t) { return 1; };
  EXPECT_EQ(Ask("h"), "");
}

// Guids.

TEST_F(GuardReplies, AGuidThatWasUsedIsNotSentAgain) {
  Ask("g");
  FromNowOn();
  net_.Reset();
  EXPECT_EQ(Ask("g"), "");
  EXPECT_THAT(net_.Sent(), IsEmpty());
  EXPECT_THAT(Journal::Of("wait"), IsEmpty());
}

TEST_F(GuardReplies, AWaiterIsFoundUntilItIsRemovedAndItsGuidStaysTaken) {
  const auto waiter = std::make_shared<ConditionAndMutex>();
  EXPECT_EQ(Endpoint().FindResponseWaiter("g"), nullptr);
  EXPECT_TRUE(Endpoint().AddResponseWaiter("g", waiter));
  EXPECT_FALSE(Endpoint().AddResponseWaiter("g", std::make_shared<ConditionAndMutex>()));
  EXPECT_EQ(Endpoint().FindResponseWaiter("g"), waiter);
  Endpoint().RemoveResponseWaiter("g");
  EXPECT_EQ(Endpoint().FindResponseWaiter("g"), nullptr);
  EXPECT_FALSE(Endpoint().AddResponseWaiter("g", waiter));
  Endpoint().RemoveResponseWaiter("unknown");
  EXPECT_THAT(Waiters(Endpoint()), ElementsAre(Pair("g", false)));
}

}  // namespace
}  // namespace tolm::test
