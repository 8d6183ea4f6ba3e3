#include "PluginSupervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "FakeProcesses.h"
#include "TolmBase/Log.h"
#include "VirtualScheduler.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"

namespace guard {
namespace {

using test::FakeProcesses;
using test::FakeRun;
using test::VirtualScheduler;
using testing::HasSubstr;
using testing::Not;
using State = PluginSupervisor::State;
using StopWay = PluginSupervisor::StopWay;

constexpr Milliseconds kGrace{2000};

class Plugin : public testing::Test {
 protected:
  Plugin() {
    manifest_.id = "clock";
    manifest_.program = "/plugins/clock/clock";
    manifest_.arguments = {"--own"};
    manifest_.working_folder = "/plugins/clock";
    manifest_.environment = {{"TZ", "UTC"}};
    plugin_ = PluginSupervisor::Make("clock", log_file(), surroundings_);
  }

  std::filesystem::path log_file() const { return directory_.path() / "clock.log"; }
  std::string Log() const {
    std::ifstream file(log_file());
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void Start(const std::vector<std::string>& extra = {"--endpoint", "e"}, bool at_once = false) {
    plugin_->Start(manifest_, extra, at_once);
  }
  void End(int status, int signal = 0) {
    processes_.last().Ends(status, signal);
    clock_.RunPosted();
  }
  std::size_t CountInGuardLog(const std::string& text) const {
    std::size_t count = 0;
    for (const auto& line : capture_.Lines()) count += line.text.find(text) != std::string::npos ? 1 : 0;
    return count;
  }
  std::size_t runs() const { return processes_.runs.size(); }

  const tolm::test::TempDirectory directory_;
  tolm::test::LogCapture capture_;
  VirtualScheduler clock_;
  FakeProcesses processes_;
  std::vector<std::string> ended_;
  const PluginSurroundings surroundings_{clock_, processes_.Starter(), [] { return 0.5; },
                                         [this](const std::string& id) { ended_.push_back(id); }};
  Manifest manifest_;
  std::shared_ptr<PluginSupervisor> plugin_;
};

TEST_F(Plugin, IsStartedAsManifestAndFrameSay) {
  Start();
  ASSERT_EQ(runs(), 1u);
  const os::ProcessRequest& request = processes_.last().request;
  EXPECT_EQ(request.program, "/plugins/clock/clock");
  EXPECT_EQ(request.arguments, (std::vector<std::string>{"--own", "--endpoint", "e"}));
  EXPECT_EQ(request.working_folder, "/plugins/clock");
  EXPECT_EQ(request.environment, (std::map<std::string, std::string>{{"TZ", "UTC"}}));
  EXPECT_EQ(plugin_->state(), State::kRunning);
  EXPECT_THAT(Log(), HasSubstr("[guard] started, process 1001: "));
}

TEST_F(Plugin, ThatRunsStaysAsItIsWhenItIsStartedWithTheSameCommandLine) {
  Start();
  Start();
  Start({"--endpoint", "e"}, true);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(processes_.last().asked, 0);
}

TEST_F(Plugin, ThatRunsIsRestartedInOrderWithAnotherCommandLine) {
  Start();
  const auto first = processes_.runs.front();
  Start({"--endpoint", "other"});
  EXPECT_EQ(first->asked, 1);
  EXPECT_EQ(runs(), 1u) << "not before the first one has ended";
  first->Ends(0);
  clock_.RunPosted();
  ASSERT_EQ(runs(), 2u);
  EXPECT_EQ(processes_.last().request.arguments.back(), "other");
  EXPECT_EQ(plugin_->state(), State::kRunning);
  EXPECT_EQ(ended_, std::vector<std::string>{"clock"});
}

TEST_F(Plugin, ThatIsKilledIsStartedAgainAfterFiftyMilliseconds) {
  Start();
  clock_.Advance(Milliseconds(500));
  End(0, 9);
  EXPECT_EQ(plugin_->state(), State::kWaiting);
  clock_.Advance(Milliseconds(49));
  EXPECT_EQ(runs(), 1u);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(runs(), 2u);
  EXPECT_EQ(ended_, std::vector<std::string>{"clock"});
  EXPECT_THAT(Log(), HasSubstr("ended: killed by signal 9 after 0.500 s"));
}

TEST_F(Plugin, EndsAreFollowedByWhatThePolicySays) {
  struct Case {
    RestartRules::When when;
    int status;
    bool restarted;
  };
  using When = RestartRules::When;
  for (const Case& one :
       {Case{When::kAlways, 0, true}, Case{When::kAlways, 1, true}, Case{When::kOnCrash, 0, false},
        Case{When::kOnCrash, 1, true}, Case{When::kNever, 0, false}, Case{When::kNever, 1, false}}) {
    manifest_.restart.when = one.when;
    plugin_ = PluginSupervisor::Make("clock", log_file(), surroundings_);
    Start();
    const std::size_t before = runs();
    End(one.status);
    clock_.Advance(Milliseconds(50));
    EXPECT_EQ(runs() - before, one.restarted ? 1u : 0u) << static_cast<int>(one.when) << one.status;
    EXPECT_EQ(plugin_->state(), one.restarted ? State::kRunning : State::kIdle);
  }
}

TEST_F(Plugin, ThatCrashesAgainAndAgainIsGivenUpAndSaysSoOnce) {
  Start();
  for (int n = 0; n < 5; ++n) {
    End(1);
    clock_.Advance(Milliseconds(800));
  }
  ASSERT_EQ(runs(), 6u);
  End(1);
  clock_.Advance(Milliseconds(1000000));
  EXPECT_EQ(runs(), 6u);
  EXPECT_EQ(plugin_->state(), State::kIdle);
  EXPECT_EQ(CountInGuardLog("given up"), 1u);
  EXPECT_THAT(Log(), HasSubstr("given up: ended again after 5 restarts within 60.000 s"));
}

TEST_F(Plugin, ThatWasGivenUpStartsWithAFreshHistory) {
  manifest_.restart.give_up_after = 1;
  Start();
  End(1);
  clock_.Advance(Milliseconds(50));
  End(1);
  ASSERT_EQ(plugin_->state(), State::kIdle);
  Start();
  ASSERT_EQ(plugin_->state(), State::kRunning);
  End(1);
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(plugin_->state(), State::kRunning) << "its first restart again, after the first delay";
}

TEST_F(Plugin, ThatCannotBeStartedCountsAsCrashedAndSaysWhyOnce) {
  processes_.failure = "/plugins/clock/clock: no such file";
  Start();
  EXPECT_EQ(plugin_->state(), State::kWaiting);
  clock_.Advance(Milliseconds(1000000));
  EXPECT_EQ(processes_.attempts, 6) << "the start and five restarts";
  EXPECT_EQ(plugin_->state(), State::kIdle);
  EXPECT_EQ(CountInGuardLog("no such file"), 1u);
  EXPECT_TRUE(ended_.empty()) << "nothing ended that had been started";
}

TEST_F(Plugin, AnotherReasonWhyItCannotBeStartedIsSaidAsWell) {
  processes_.failure = "no such file";
  Start();
  processes_.failure = "not executable";
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(CountInGuardLog("no such file"), 1u);
  EXPECT_EQ(CountInGuardLog("not executable"), 1u);
}

TEST_F(Plugin, ThatCannotBeStartedRunsOnceItCan) {
  processes_.failure = "text file busy";
  Start();
  processes_.failure.clear();
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(plugin_->state(), State::kRunning);
}

// ------------------------------------------------------------------------------------------- Stops

TEST_F(Plugin, ThatEndsWhenAskedIsNotRestarted) {
  manifest_.restart.when = RestartRules::When::kAlways;
  Start();
  plugin_->Stop(StopWay::kAsk);
  EXPECT_EQ(processes_.last().asked, 1);
  EXPECT_EQ(plugin_->state(), State::kStopping);
  End(1);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(plugin_->state(), State::kIdle);
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(ended_.size(), 1u);
}

TEST_F(Plugin, ThatDoesNotEndWhenAskedIsKilledAfterItsGrace) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(kGrace - Milliseconds(1));
  EXPECT_EQ(processes_.last().killed, 0);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(processes_.last().killed, 1);
  EXPECT_EQ(plugin_->state(), State::kIdle);
  EXPECT_EQ(clock_.timers(), 0u);
}

TEST_F(Plugin, ThatMayEndByItselfIsAskedAfterOneGraceAndKilledAfterTwo) {
  Start();
  plugin_->Stop(StopWay::kLetItEnd);
  clock_.Advance(kGrace - Milliseconds(1));
  EXPECT_EQ(processes_.last().asked, 0);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(processes_.last().asked, 1);
  clock_.Advance(kGrace - Milliseconds(1));
  EXPECT_EQ(processes_.last().killed, 0);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(processes_.last().killed, 1);
}

TEST_F(Plugin, ThatMayEndByItselfAndDoesIsLeftAlone) {
  Start();
  plugin_->Stop(StopWay::kLetItEnd);
  clock_.Advance(Milliseconds(300));
  End(0);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(processes_.last().asked, 0);
  EXPECT_EQ(runs(), 1u);
}

TEST_F(Plugin, AStopThatLetsItEndBecomesOneThatAsks) {
  Start();
  plugin_->Stop(StopWay::kLetItEnd);
  clock_.Advance(Milliseconds(100));
  plugin_->Stop(StopWay::kAsk);
  EXPECT_EQ(processes_.last().asked, 1);
  clock_.Advance(kGrace);
  EXPECT_EQ(processes_.last().killed, 1);
}

TEST_F(Plugin, AStopThatAsksStaysOneAndAsksOnce) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(1900));
  plugin_->Stop(StopWay::kLetItEnd);
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(100));
  EXPECT_EQ(processes_.last().asked, 1);
  EXPECT_EQ(processes_.last().killed, 1) << "its grace does not begin anew";
}

TEST_F(Plugin, AShorterGraceCountsFromWhenItIsSaid) {
  manifest_.stop_grace = Milliseconds(60000);
  Start();
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(1000));
  plugin_->Stop(StopWay::kAsk, Milliseconds(2500));
  clock_.Advance(Milliseconds(2499));
  EXPECT_EQ(processes_.last().killed, 0);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(processes_.last().killed, 1);
}

TEST_F(Plugin, AShorterGraceDoesNotMakeWhatIsLeftLonger) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(1900));
  plugin_->Stop(StopWay::kAsk, Milliseconds(1000));
  clock_.Advance(Milliseconds(100));
  EXPECT_EQ(processes_.last().killed, 1);
}

TEST_F(Plugin, ThatWaitsForItsRestartIsStoppedByNotRestartingIt) {
  Start();
  End(1);
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(plugin_->state(), State::kIdle);
}

TEST_F(Plugin, ThatIsStoppedBeforeItsProcessWasSeenToEndIsNotRestarted) {
  Start();
  processes_.last().Ends(1);  // not told yet
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(plugin_->state(), State::kIdle);
}

TEST_F(Plugin, ThatIsStartedWhileItStopsRunsAgainOnceItHasEnded) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  Start();
  EXPECT_EQ(runs(), 1u);
  End(0);
  EXPECT_EQ(runs(), 2u);
  EXPECT_EQ(plugin_->state(), State::kRunning);
}

TEST_F(Plugin, ThatIsStartedWhileItStopsAndStoppedOnceMoreStaysDown) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  Start();
  plugin_->Stop(StopWay::kAsk);
  End(0);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
}

TEST_F(Plugin, StoppingWhatDoesNotRunDoesNothing) {
  plugin_->Stop(StopWay::kAsk);
  plugin_->Stop(StopWay::kLetItEnd);
  EXPECT_EQ(plugin_->state(), State::kIdle);
  EXPECT_EQ(clock_.timers(), 0u);
}

TEST_F(Plugin, ThatSurvivesItsKillKeepsItsSlot) {
  processes_.next_end_when_killed = false;
  Start();
  plugin_->Stop(StopWay::kAsk);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(processes_.last().killed, 1);
  EXPECT_TRUE(plugin_->has_process());
  Start();
  EXPECT_EQ(runs(), 1u) << "no second one beside it";
  End(0, 9);
  EXPECT_EQ(runs(), 2u);
}

TEST_F(Plugin, WhatItsProcessLeftBehindIsGoneBeforeItsSuccessorStarts) {
  Start();
  const auto first = processes_.runs.front();
  End(1);
  EXPECT_TRUE(first->dropped);
}

// -------------------------------------------------------------------------------------- Protection

TEST_F(Plugin, ThatIsNotProtectedIsNotRestarted) {
  Start();
  plugin_->SetProtected(false);
  End(0, 9);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(ended_.size(), 1u) << "its end is told all the same";
}

TEST_F(Plugin, ThatIsProtectedAgainIsRestarted) {
  Start();
  plugin_->SetProtected(false);
  plugin_->SetProtected(true);
  End(0, 9);
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(runs(), 2u);
}

TEST_F(Plugin, ThatWaitsForItsRestartStaysDownWhenItsProtectionIsTaken) {
  Start();
  End(1);
  plugin_->SetProtected(false);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(plugin_->state(), State::kIdle);
}

TEST_F(Plugin, IsProtectedAgainOnceItIsStarted) {
  Start();
  plugin_->SetProtected(false);
  Start();
  EXPECT_TRUE(plugin_->is_protected());
}

TEST_F(Plugin, ThatWaitsForItsRestartStartsAtOnceOnlyWhenThatIsWanted) {
  Start();
  End(1);
  Start({"--endpoint", "e"}, false);
  EXPECT_EQ(runs(), 1u);
  Start({"--endpoint", "e"}, true);
  EXPECT_EQ(runs(), 2u);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(runs(), 2u) << "the restart that was due is off";
}

TEST_F(Plugin, ThatWaitsForItsRestartStartsAtOnceWithAnotherCommandLine) {
  Start();
  End(1);
  Start({"--endpoint", "other"}, false);
  EXPECT_EQ(runs(), 2u);
  EXPECT_EQ(processes_.last().request.arguments.back(), "other");
}

// ----------------------------------------------------------------------------------- What is said

TEST_F(Plugin, ThatEndsBadlyInItsFirstSecondsIsExplainedWithItsLastLines) {
  Start();
  processes_.last().Prints("reading settings\nno settings file\n");
  End(7);
  clock_.Advance(Milliseconds(30));
  ASSERT_EQ(CountInGuardLog("ended soon after its start: /plugins/clock/clock, exit status 7 after 0.000 s"),
            1u);
  EXPECT_EQ(CountInGuardLog("\n    reading settings\n    no settings file"), 1u);
}

TEST_F(Plugin, OutputThatComesAfterTheEndIsPartOfTheExplanation) {
  Start();
  const auto run = processes_.runs.front();
  processes_.last().request.on_end({7, 0});
  clock_.RunPosted();
  run->Prints("late\n");
  clock_.Advance(Milliseconds(30));
  EXPECT_EQ(CountInGuardLog("\n    late"), 1u);
}

TEST_F(Plugin, TheExplanationComesBeforeARestartWithoutDelay) {
  manifest_.restart.first_delay = Milliseconds(0);
  Start();
  processes_.last().Prints("why\n");
  End(7);
  clock_.Advance(Milliseconds(0));
  ASSERT_EQ(runs(), 2u);
  EXPECT_EQ(CountInGuardLog("\n    why"), 1u);
  clock_.Advance(Milliseconds(100));
  EXPECT_EQ(CountInGuardLog("ended soon after its start"), 1u);
}

TEST_F(Plugin, ThatEndsBadlyAfterALongerRunOrWellIsNotExplained) {
  Start();
  clock_.Advance(Milliseconds(5000));
  End(7);
  clock_.Advance(Milliseconds(50));
  End(0);
  clock_.Advance(Milliseconds(1000));
  EXPECT_EQ(CountInGuardLog("ended soon after its start"), 0u);
}

TEST_F(Plugin, ThatIsStoppedIsNotExplained) {
  Start();
  plugin_->Stop(StopWay::kAsk);
  End(7);
  clock_.Advance(Milliseconds(1000));
  EXPECT_EQ(CountInGuardLog("ended soon after its start"), 0u);
}

TEST_F(Plugin, OutputStandsInItsOwnFileBetweenStartAndEnd) {
  Start();
  processes_.last().Prints("tick\n");
  End(3);
  const std::string log = Log();
  EXPECT_LT(log.find("[guard] started"), log.find("[out] tick"));
  EXPECT_LT(log.find("[out] tick"), log.find("[guard] ended: exit status 3"));
}

TEST_F(Plugin, AnEndThatIsToldAfterThePluginIsGoneHarmsNobody) {
  Start();
  const auto run = processes_.runs.front();
  plugin_.reset();
  EXPECT_TRUE(run->dropped);
  run->Ends(0, 9);
  clock_.Advance(Milliseconds(1000));
  EXPECT_EQ(runs(), 1u);
}

}  // namespace
}  // namespace guard
