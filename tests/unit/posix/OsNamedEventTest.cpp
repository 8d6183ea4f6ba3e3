// What events are only where they are files: who comes first, and what killed holders and killed waiters
// leave.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ForkedChild.h"
#include "os/NamedEvent.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using tolm::test::ForkedChild;

using Event = std::unique_ptr<NamedEvent>;
using Clock = std::chrono::steady_clock;

constexpr int kLong = 30'000;
constexpr milliseconds kGrace{50};

Event Make(const std::string& name) {
  int error = -1;
  Event event = NamedEvent::Create(name, error);
  EXPECT_TRUE(event) << name << ": " << error;
  EXPECT_EQ(error, 0);
  return event;
}

class OsPosixNamedEvent : public testing::Test {
 protected:
  std::size_t Files() const {
    if (!fs::exists(folder_)) return 0;
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }
  auto MakeAndWait() const {
    return [this](const auto& voice) {
      const Event own = Make(name_);
      voice.Say('r');
      own->Wait(-1);
      return 0;
    };
  }
  fs::path OnlyFile() const { return fs::directory_iterator(folder_)->path(); }

  const tolm::test::RuntimeDirectory directory_;
  const fs::path folder_ = directory_.endpoints();
  const std::string name_ = "Global\\C:/App/Agent.exe-agent";
};

TEST_F(OsPosixNamedEvent, WhoSetsItAndThenWaitsGetsTheAnswerAndNotItsOwnSignal) {
  const Event event = Make(name_);
  ForkedChild child([&](const auto& voice) {
    const Event own = NamedEvent::Open(name_);
    if (!own) return 1;
    voice.Say('r');
    if (!own->Wait(kLong)) return 2;
    voice.Say('w');
    own->Set();
    return 0;
  });
  ASSERT_EQ(child.Hear(), 'r');
  ASSERT_TRUE(child.Sleeps());
  event->Set();
  EXPECT_TRUE(event->Wait(kLong));
  EXPECT_EQ(child.Hear(), 'w') << "the child came first, or it would wait still";
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsPosixNamedEvent, AWaitWithoutTimeLeavesTheSignalToTheOneThatWaits) {
  const Event event = Make(name_);
  ForkedChild child([&](const auto& voice) {
    const Event own = NamedEvent::Open(name_);
    voice.Say('r');
    return own->Wait(kLong) ? 0 : 2;
  });
  ASSERT_EQ(child.Hear(), 'r');
  ASSERT_TRUE(child.Sleeps());
  event->Set();
  EXPECT_FALSE(event->Wait(0));
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsPosixNamedEvent, AKilledWaiterCostsOneGraceAndKeepsNoSignal) {
  const Event event = Make(name_);
  {
    ForkedChild child([&](const auto& voice) {
      const Event own = NamedEvent::Open(name_);
      voice.Say('r');
      own->Wait(-1);
      return 0;
    });
    ASSERT_EQ(child.Hear(), 'r');
    ASSERT_TRUE(child.Sleeps());
    child.Kill();
  }
  event->Set();
  const auto begin = Clock::now();
  EXPECT_TRUE(event->Wait(0)) << "nobody alive wants it";
  EXPECT_GE(Clock::now() - begin, kGrace) << "the killed one could have been alive";

  constexpr int kRounds = 200;
  const auto later = Clock::now();
  for (int i = 0; i < kRounds; ++i) {
    event->Set();
    EXPECT_TRUE(event->Wait(0));
  }
  EXPECT_LT(Clock::now() - later, kRounds * kGrace / 2) << "it costs that once and not each time";
}

TEST_F(OsPosixNamedEvent, AMakerThatWasJustKilledHoldsItNoMore) {
  constexpr int kRounds = 50;
  for (int i = 0; i < kRounds; ++i) {
    ForkedChild child(MakeAndWait());
    ASSERT_EQ(child.Hear(), 'r');
    ASSERT_TRUE(NamedEvent::Open(name_));
    ::kill(child.id(), SIGKILL);  // and it ends when the system comes to it
    ASSERT_FALSE(NamedEvent::Open(name_)) << "it does not answer any more, round " << i;
  }
  EXPECT_EQ(Files(), 0u);
}

TEST_F(OsPosixNamedEvent, AMakerThatTakesItsTimeToEndIsWaitedFor) {
  ForkedChild child([&](const auto& voice) {
    const Event own = Make(name_);
    std::thread last([&] {
      while (tolm::test::ProcessState(::getpid()) != 'Z') std::this_thread::yield();
      voice.Say('z');
      own->Wait(-1);
    });
    ::syscall(SYS_exit, 0);  // the first thread only
    last.join();
    return 1;
  });
  ASSERT_EQ(child.Hear(), 'z');
  const auto begin = Clock::now();
  auto is_there = std::async(std::launch::async, [&] { return NamedEvent::Open(name_) != nullptr; });
  EXPECT_EQ(is_there.wait_for(kGrace), std::future_status::timeout);
  child.Kill();
  EXPECT_TRUE(!is_there.get() || Clock::now() - begin >= std::chrono::seconds(1))
      << "that long and no longer";
}

TEST_F(OsPosixNamedEvent, WhoeverFindsItsMakerGoneMakesItAnew) {
  Event held;
  {
    ForkedChild child(MakeAndWait());
    ASSERT_EQ(child.Hear(), 'r');
    held = NamedEvent::Open(name_);
    child.Kill();
  }
  const Event made = Make(name_);
  const auto begin = Clock::now();
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(NamedEvent::Open(name_));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5)) << "the gone one is not waited for each time";
}

TEST_F(OsPosixNamedEvent, AWaiterThatWasTooSlowOnceHasItsGraceAgain) {
  const Event event = Make(name_);
  ForkedChild child([&](const auto& voice) {
    const Event own = NamedEvent::Open(name_);
    voice.Say('r');
    return own->Wait(kLong) ? 0 : 2;
  });
  ASSERT_EQ(child.Hear(), 'r');
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(child.Sleeps());
    ::kill(child.id(), SIGSTOP);
    ASSERT_TRUE(tolm::test::WaitFor([&] { return tolm::test::ProcessState(child.id()) == 'T'; }));
    event->Set();
    const auto begin = Clock::now();
    EXPECT_TRUE(event->Wait(0)) << "it does not take the signal";
    EXPECT_GE(Clock::now() - begin, kGrace) << round;
    ::kill(child.id(), SIGCONT);
  }
  event->Set();
  EXPECT_EQ(child.Join(), 0);
}

TEST_F(OsPosixNamedEvent, ALivingWaiterIsWokenBesideAKilledOne) {
  const Event event = Make(name_);
  const auto wait = [&](const auto& voice) {
    const Event own = NamedEvent::Open(name_);
    voice.Say('r');
    return own->Wait(kLong) ? 0 : 2;
  };
  ForkedChild killed(wait);
  ASSERT_EQ(killed.Hear(), 'r');
  ASSERT_TRUE(killed.Sleeps());
  ForkedChild living(wait);
  ASSERT_EQ(living.Hear(), 'r');
  ASSERT_TRUE(living.Sleeps());
  killed.Kill();
  event->Set();
  EXPECT_EQ(living.Join(), 0);
}

TEST_F(OsPosixNamedEvent, ItsFileIsThereWhileSomebodyHoldsIt) {
  EXPECT_FALSE(NamedEvent::Open(name_));
  Event made = Make(name_);
  Event opened = NamedEvent::Open(name_);
  ASSERT_TRUE(opened);
  made.reset();
  Event again = NamedEvent::Open(name_);
  EXPECT_TRUE(again) << "one that opened it is a holder like the one that made it";
  again.reset();
  EXPECT_EQ(Files(), 1u);
  opened.reset();
  EXPECT_FALSE(NamedEvent::Open(name_));
  EXPECT_EQ(Files(), 0u) << "nothing is left behind";
}

TEST_F(OsPosixNamedEvent, ThoseWhoJoinShareOneFile) {
  const Event first = Make(name_);
  first->Set();
  const Event second = Make(name_);
  EXPECT_TRUE(second->Wait(0)) << "its signal is not lost";
  EXPECT_EQ(Files(), 1u);
}

TEST_F(OsPosixNamedEvent, AKilledHoldersFileIsNoEvent) {
  for (const bool open : {true, false}) {
    ForkedChild child([&](const auto& voice) {
      const Event event = Make(name_);
      event->Set();
      voice.Say('r');
      ::pause();
      return 0;
    });
    ASSERT_EQ(child.Hear(), 'r');
    ASSERT_TRUE(NamedEvent::Open(name_));
    child.Kill();
    ASSERT_EQ(Files(), 1u) << "a killed process removes nothing";
    if (open) {
      EXPECT_FALSE(NamedEvent::Open(name_));
      EXPECT_EQ(Files(), 0u);
    } else {
      EXPECT_FALSE(Make(name_)->Wait(0)) << "its signal is not taken over";
    }
  }
}

TEST_F(OsPosixNamedEvent, AFileOfAnySizeThatNobodyHoldsIsNoEvent) {
  fs::path file;
  {
    const Event event = Make(name_);
    file = OnlyFile();
  }
  for (const std::size_t size : {0u, 1u, 15u, 16u, 5000u}) {
    std::ofstream(file) << std::string(size, '\xFF');
    EXPECT_FALSE(NamedEvent::Open(name_)) << size;
    EXPECT_FALSE(fs::exists(file)) << size;
    std::ofstream(file) << std::string(size, '\xFF');
    const Event event = Make(name_);
    ASSERT_TRUE(event);
    EXPECT_FALSE(event->Wait(0)) << size;
    event->Set();
    EXPECT_TRUE(event->Wait(0)) << size;
  }
}

TEST_F(OsPosixNamedEvent, ManyThreadsThatMakeAndLeaveItLeaveNoFile) {
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
  EXPECT_EQ(Files(), 0u);
}

TEST_F(OsPosixNamedEvent, AnEmptyNameHasItsCode) {
  int error = 0;
  EXPECT_FALSE(NamedEvent::Create("", error));
  EXPECT_EQ(error, EINVAL);
  EXPECT_FALSE(NamedEvent::Open(""));
}

TEST_F(OsPosixNamedEvent, TheFileIsTheUsersAlone) {
  const Event event = Make(name_);
  struct stat status {};
  ASSERT_EQ(::stat(OnlyFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(folder_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(OsPosixNamedEvent, AFolderThatOthersMayEnterHoldsNoEvents) {
  const Event event = Make(name_);
  fs::permissions(folder_, fs::perms(0755));
  int error = 0;
  EXPECT_FALSE(NamedEvent::Create("other", error));
  EXPECT_EQ(error, EACCES);
  EXPECT_FALSE(NamedEvent::Open(name_));
}

TEST_F(OsPosixNamedEvent, ALinkInItsPlaceIsNotFollowed) {
  const fs::path target = directory_.path() / "precious";
  std::ofstream(target) << "content";
  fs::path file;
  {
    const Event event = Make(name_);
    file = OnlyFile();
  }
  fs::create_symlink(target, file);
  int error = 0;
  EXPECT_FALSE(NamedEvent::Create(name_, error));
  EXPECT_EQ(error, ELOOP);
  EXPECT_FALSE(NamedEvent::Open(name_));
  EXPECT_EQ(fs::file_size(target), 7u);
}

TEST_F(OsPosixNamedEvent, WhoSetsItAndWaitsLeavesTheSignalToItsMakerThatWaitsOnlyThen) {
  const Event maker = Make(name_);
  const Event asking = NamedEvent::Open(name_);
  ASSERT_TRUE(asking);
  asking->Set();
  std::atomic<bool> answered{false};
  std::thread waiter([&] { answered = asking->Wait(kLong); });
  EXPECT_TRUE(maker->Wait(kLong));
  EXPECT_FALSE(answered);
  maker->Set();
  waiter.join();
  EXPECT_TRUE(answered);
}

TEST_F(OsPosixNamedEvent, ASignalForAMakerInAnotherProcessIsLeftToItHoweverLateItIs) {
  int may_take[2];
  ASSERT_EQ(::pipe(may_take), 0);
  ForkedChild child([&](const auto& voice) {
    const Event maker = Make(name_);
    voice.Say('m');
    char byte = 0;
    if (::read(may_take[0], &byte, 1) != 1) return 2;
    return maker->Wait(kLong) ? 0 : 1;
  });
  ASSERT_EQ(child.Hear(), 'm');
  const Event asking = NamedEvent::Open(name_);
  ASSERT_TRUE(asking);
  asking->Set();
  EXPECT_FALSE(asking->Wait(600)) << "longer than it is left to anybody else";
  ASSERT_EQ(::write(may_take[1], "x", 1), 1);
  EXPECT_EQ(child.Join(), 0);
  for (const int end : may_take) ::close(end);
}

TEST_F(OsPosixNamedEvent, WithoutItsNameItIsFoundByNobodyAndServesItsHolders) {
  const Event maker = Make(name_);
  const Event found = NamedEvent::Open(name_);
  ASSERT_TRUE(found);
  maker->GiveUpName();
  EXPECT_EQ(Files(), 0u);
  EXPECT_FALSE(NamedEvent::Open(name_));
  maker->Set();
  EXPECT_TRUE(found->Wait(kLong));

  const Event another = Make(name_);
  EXPECT_EQ(Files(), 1u);
  another->Set();
  EXPECT_FALSE(found->Wait(0)) << "another event under the same name";
}

TEST_F(OsPosixNamedEvent, ItsHandleIsTold) {
  const Event event = Make(name_);
  EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(event->native())), OnlyFile());
}

}  // namespace
}  // namespace os
