// Events between processes and between threads, and what killed holders leave.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "OsRoles.h"
#include "os/NamedEvent.h"
#include "support/ChildProcess.h"
#include "support/System.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

using std::chrono::milliseconds;
using tolm::test::ChildProcess;
using tolm::test::Exit;
using tolm::test::InRole;

using Event = std::unique_ptr<NamedEvent>;
using Clock = std::chrono::steady_clock;

constexpr int kLong = 30'000;

Event Make(const std::string& name) {
  int error = -1;
  Event event = NamedEvent::Create(name, error);
  EXPECT_TRUE(event) << name << ": " << error;
  EXPECT_EQ(error, 0);
  return event;
}

class OsNamedEvent : public testing::Test {
 protected:
  const tolm::test::RuntimeDirectory directory_;
  // Of this process alone: names may be the whole system's.
  const std::string own_ = std::to_string(tolm::test::OwnProcessId());
  const std::string name_ = "Global\\C:/App/" + own_ + "/Agent.exe-agent";
};

TEST_F(OsNamedEvent, IsNotSignalledAtFirst) {
  EXPECT_FALSE(Make(name_)->Wait(0));
}

TEST_F(OsNamedEvent, OneSetReleasesOneWait) {
  const Event event = Make(name_);
  event->Set();
  EXPECT_TRUE(event->Wait(0));
  EXPECT_FALSE(event->Wait(0));
}

TEST_F(OsNamedEvent, SettingASignalledEventAddsNothing) {
  const Event event = Make(name_);
  event->Set();
  event->Set();
  EXPECT_TRUE(event->Wait(-1));
  EXPECT_FALSE(event->Wait(0));
}

TEST_F(OsNamedEvent, AWaitEndsAtItsTimeOutAndNotBefore) {
  const Event event = Make(name_);
  const auto begin = Clock::now();
  EXPECT_FALSE(event->Wait(30));
  EXPECT_GE(Clock::now() - begin, milliseconds(30));
}

TEST_F(OsNamedEvent, AThreadThatWaitsIsWokenThroughAnotherHolder) {
  const Event waiting = Make(name_);
  const Event setting = NamedEvent::Open(name_);
  ASSERT_TRUE(setting);
  std::thread setter([&] { setting->Set(); });
  EXPECT_TRUE(waiting->Wait(kLong));
  setter.join();
}

TEST_F(OsNamedEvent, EachSignalReleasesExactlyOneOfManyThreads) {
  constexpr int kThreads = 4;
  const Event event = Make(name_);
  std::atomic<int> released = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      if (event->Wait(-1)) ++released;
    });
  }
  for (int i = 1; i <= kThreads; ++i) {
    event->Set();
    ASSERT_TRUE(tolm::test::WaitFor([&] { return released == i; }));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(event->Wait(0)) << "nothing is left over";
}

TEST_F(OsNamedEvent, ProcessesWakeEachOtherManyTimes) {
  constexpr int kRounds = 200;
  const Event there = Make("there " + own_);
  const Event back = Make("back " + own_);
  ChildProcess child(InRole({"answer-events", "there " + own_, "back " + own_, std::to_string(kRounds)}));
  ASSERT_TRUE(child.WaitForLine("ready"));
  for (int i = 0; i < kRounds; ++i) {
    there->Set();
    ASSERT_TRUE(back->Wait(kLong)) << i;
  }
  EXPECT_EQ(child.WaitExit(), (Exit{0, false}));
}

TEST_F(OsNamedEvent, ExistsWhileSomebodyHoldsIt) {
  EXPECT_FALSE(NamedEvent::Open(name_));
  Event made = Make(name_);
  Event opened = NamedEvent::Open(name_);
  ASSERT_TRUE(opened);
  made.reset();
  Event again = NamedEvent::Open(name_);
  EXPECT_TRUE(again) << "one that opened it is a holder like the one that made it";
  again.reset();
  opened.reset();
  EXPECT_FALSE(NamedEvent::Open(name_));
}

TEST_F(OsNamedEvent, CreateJoinsTheHoldersOfOneThatExists) {
  const Event first = Make(name_);
  first->Set();
  const Event second = Make(name_);
  EXPECT_TRUE(second->Wait(0)) << "its signal is not lost";
}

TEST_F(OsNamedEvent, ASignalEndsWithTheLastHolder) {
  Make(name_)->Set();
  EXPECT_FALSE(Make(name_)->Wait(0));
}

TEST_F(OsNamedEvent, AKilledHolderLeavesNoEvent) {
  for (const bool open : {true, false}) {
    ChildProcess child(InRole({"hold-event", name_}));
    ASSERT_TRUE(child.WaitForLine("ready"));
    ASSERT_TRUE(NamedEvent::Open(name_));
    child.Kill();
    ASSERT_TRUE(child.WaitExit());
    if (open) {
      EXPECT_FALSE(NamedEvent::Open(name_));
    } else {
      EXPECT_FALSE(Make(name_)->Wait(0)) << "its signal is not taken over";
    }
  }
}

TEST_F(OsNamedEvent, ManyThreadsThatMakeAndLeaveItMeetInOneEvent) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<int> failed = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        int error = 0;
        const Event made = NamedEvent::Create(name_, error);
        const Event opened = NamedEvent::Open(name_);
        // As long as `made` is held, everybody who comes must find the same event.
        if (made == nullptr || opened == nullptr) ++failed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failed, 0);
}

TEST_F(OsNamedEvent, TwoCreatorsAtOnceShareOneEvent) {
  for (int round = 0; round < 100; ++round) {
    Event events[2];
    std::atomic<int> ready = 0;
    const auto create = [&](Event& event) {
      ++ready;
      while (ready < 2) std::this_thread::yield();
      int error = 0;
      event = NamedEvent::Create(name_, error);
    };
    std::thread other([&] { create(events[1]); });
    create(events[0]);
    other.join();
    ASSERT_TRUE(events[0] && events[1]);
    events[0]->Set();
    EXPECT_TRUE(events[1]->Wait(0)) << round;
  }
}

TEST_F(OsNamedEvent, NamesAreAnyTextAndComparedExactly) {
  const std::string long_name(300, 'x');
  std::vector<std::string> names = {"a",
                                    "A",
                                    "a/b",
                                    "a\\b",
                                    "a%2Fb",
                                    "..",
                                    ".",
                                    "../a",
                                    " ",
                                    "\n",
                                    "=",
                                    "\xC3\xA4",
                                    std::string("a\0b", 3),
                                    name_,
                                    "Global\\a\\b",
                                    "Global\\..\\a",
                                    name_ + "-",
                                    std::string(200, 'y'),
                                    std::string(201, 'y'),
                                    long_name,
                                    long_name + "x",
                                    "1" + long_name,
                                    "2" + long_name,
                                    long_name + "/" + long_name,
                                    std::string(5000, '\\')};
  for (std::string& name : names) name += own_;
  std::vector<Event> events;
  for (const std::string& name : names) {
    EXPECT_FALSE(NamedEvent::Open(name)) << name;
    events.push_back(Make(name));
    ASSERT_TRUE(events.back());
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    const Event opened = NamedEvent::Open(names[i]);
    ASSERT_TRUE(opened);
    opened->Set();
    for (std::size_t j = 0; j < names.size(); ++j) EXPECT_EQ(events[j]->Wait(0), i == j) << names[i];
  }
}

TEST_F(OsNamedEvent, AnEmptyNameIsNone) {
  int error = 0;
  EXPECT_FALSE(NamedEvent::Create("", error));
  EXPECT_NE(error, 0);
  EXPECT_FALSE(NamedEvent::Open(""));
}

}  // namespace
}  // namespace os
