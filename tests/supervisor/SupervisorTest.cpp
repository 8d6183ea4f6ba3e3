#include <gmock/gmock.h>

#include <algorithm>

#include "SupervisorScene.h"

namespace guard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Guard : public test::SupervisorScene {
 protected:
  Guard() {
    MakeSupervisor(false);
    Connect();
    clock_.RunPosted();
    frame_.sent.clear();
  }
};

TEST_F(Guard, AsksForPathAndStatesWhenItIsConnected) {
  LoseFrame();
  Connect();
  EXPECT_THAT(frame_.Methods(), ElementsAre("GetMianProcessPath", "GetProcessInitStateList"));
}

TEST_F(Guard, EchoesTheStartOfTheFrame) {
  SayMethod("NotifyLPCFrameInit");
  ASSERT_EQ(frame_.sent.size(), 1u);
  EXPECT_EQ(frame_.sent[0].method, "NotifyLPCFrameInit");
  EXPECT_EQ(frame_.sent[0].guid, "g-NotifyLPCFrameInit");
}

TEST_F(Guard, EchoesProtectionAlsoForPluginsThatItDoesNotKnow) {
  Protect({{"nobody", 0}, {"../x", 1}});
  Protect({});
  ASSERT_EQ(frame_.sent.size(), 2u);
  EXPECT_EQ(frame_.sent[0].method, "SetProcessGuardStateList");
  EXPECT_EQ(frame_.sent[0].guid, "g-SetProcessGuardStateList");
}

TEST_F(Guard, AsksForTheStatesAgainEachTimeTheyChange) {
  SayMethod("NotifyState", ",\"type\":1");
  SayMethod("NotifyState", ",\"type\":1");
  EXPECT_THAT(frame_.Methods(), ElementsAre("GetProcessInitStateList", "GetProcessInitStateList"));
}

TEST_F(Guard, SaysWhenAPluginsInitialisationStateHasChanged) {
  const std::string states =
      R"({"code":"0","msg":"","guid":"g","responseData":{"initInfoList":[)"
      R"({"processName":"clock","initState":1},{"processName":"shop","initState":0}],"total":2}})";
  Say(states);
  Say(states);
  EXPECT_EQ(CountInLog("plugin clock: initialised"), 1u);
  EXPECT_EQ(CountInLog("plugin shop"), 0u);
  Say(R"({"guid":"g","responseData":{"initInfoList":[{"processName":"clock","initState":0}],"total":1}})");
  EXPECT_EQ(CountInLog("plugin clock: not initialised any more"), 1u);
}

TEST_F(Guard, StartsEveryListedPluginWithTheCommandLineSplit) {
  Start({"clock", "relay"}, R"(--endpoint \"my host\" --verbose C:\\x)");
  EXPECT_TRUE(IsRunning("clock"));
  EXPECT_TRUE(IsRunning("relay"));
  EXPECT_FALSE(IsRunning("shop"));
  EXPECT_EQ(Run("clock").request.arguments,
            (std::vector<std::string>{"--endpoint", "my host", "--verbose", "C:\\x"}));
  EXPECT_TRUE(std::filesystem::exists(directory_.path() / "log" / "clock.log"));
}

TEST_F(Guard, AListedPluginWithoutManifestCostsOneLineAndNobodyElseAnything) {
  Start({"nobody", "clock"});
  EXPECT_TRUE(IsRunning("clock"));
  EXPECT_EQ(CountInLog("plugin nobody is not started: there is no "), 1u);
}

TEST_F(Guard, AListedPluginWithAFaultyManifestIsExplainedAndHarmsNobody) {
  AddManifest("faulty", ", \"restart\": {\"factor\": 0}");
  Start({"faulty", "clock"});
  EXPECT_TRUE(IsRunning("clock"));
  const std::string file = (plugins_folder() / "faulty" / "plugin.json").string();
  EXPECT_EQ(CountInLog(file + ":1:45: restart.factor: must be a number from 1 to 100"), 1u);
}

TEST_F(Guard, IdsThatAreNoFolderNamesAreRefused) {
  std::filesystem::create_directories(directory_.path() / "outside");
  AddManifestIn(directory_.path(), "outside");
  Start({"../outside", "..", ".", "", "a/b", R"(a\\b)", std::string(129, 'x'), "guard", "clock"});
  EXPECT_EQ(processes_.attempts, 1);
  EXPECT_TRUE(IsRunning("clock"));
  EXPECT_EQ(CountInLog("is not started: "), 8u);
}

TEST_F(Guard, ARepeatedListLeavesWhatRunsAsItIs) {
  Start({"clock", "relay"});
  Start({"clock", "relay"});
  EXPECT_EQ(processes_.attempts, 2);
  EXPECT_EQ(Run("clock").asked, 0);
}

TEST_F(Guard, AnotherCommandLineRestartsWhatRunsInOrder) {
  Start({"clock"});
  Start({"clock"}, "--endpoint other");
  EXPECT_EQ(Runs("clock"), 1u);
  EXPECT_EQ(Run("clock").asked, 1);
  End("clock", 0);
  clock_.Advance(Milliseconds(10));
  ASSERT_EQ(Runs("clock"), 2u);
  EXPECT_THAT(Run("clock").request.arguments, ElementsAre("--endpoint", "other"));
}

TEST_F(Guard, APluginThatIsNotListedAnyMoreKeepsRunningWhileItIsProtected) {
  Start({"clock", "relay"});
  Start({"relay"});
  EXPECT_EQ(Run("clock").asked, 0);
  EXPECT_TRUE(IsRunning("clock"));
}

TEST_F(Guard, APluginThatIsNeitherListedNorProtectedAnyMoreIsStopped) {
  Start({"clock", "relay"});
  Protect({{"clock", 0}, {"relay", 0}});
  Start({"relay"});
  EXPECT_EQ(Run("clock").asked, 1);
  EXPECT_EQ(Run("relay").asked, 0);
}

TEST_F(Guard, DoesNotTellTheEndOfWhatNeverStarted) {
  processes_.failure = "no such file";
  Start({"clock"});
  clock_.Advance(Milliseconds(100000));
  EXPECT_THAT(frame_.sent, IsEmpty());
}

TEST_F(Guard, APluginWhoseProtectionWasTakenIsNotRestarted) {
  Start({"clock", "relay"});
  Protect({{"clock", 0}, {"relay", 0}});
  Protect({{"relay", 1}});
  End("clock", 0, 9);
  End("relay", 0, 9);
  clock_.Advance(Milliseconds(1000));
  EXPECT_EQ(Runs("clock"), 1u);
  EXPECT_EQ(Runs("relay"), 2u);
}

TEST_F(Guard, StopsAPluginAndKeepsItDown) {
  Start({"clock", "relay"});
  SayMethod("StopProcess", R"(,"processName":"clock")");
  EXPECT_EQ(Run("clock").asked, 1);
  EXPECT_EQ(Run("relay").asked, 0);
  End("clock", 3);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(Runs("clock"), 1u);
}

TEST_F(Guard, StoppingAPluginThatWasNeverStartedCostsOneLine) {
  SayMethod("StopProcess", R"(,"processName":"clock")");
  EXPECT_EQ(CountInLog("a plugin that was never started is to be stopped: clock"), 1u);
}

TEST_F(Guard, StartsAPluginThatWasStopped) {
  Start({"clock"});
  SayMethod("StopProcess", R"(,"processName":"clock")");
  End("clock", 0);
  SayMethod("StartProcess", R"(,"processName":"clock")");
  EXPECT_EQ(Runs("clock"), 2u);
  EXPECT_THAT(Run("clock").request.arguments, ElementsAre("--endpoint", "e"));
}

TEST_F(Guard, StartsAPluginThatWasGivenUpWithAFreshHistory) {
  Start({"clock"});
  for (int n = 0; n < 6; ++n) {
    End("clock", 1);
    clock_.Advance(Milliseconds(800));
  }
  ASSERT_EQ(Runs("clock"), 6u);
  ASSERT_FALSE(IsRunning("clock"));
  SayMethod("StartProcess", R"(,"processName":"clock")");
  ASSERT_EQ(Runs("clock"), 7u);
  End("clock", 1);
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(Runs("clock"), 8u);
}

TEST_F(Guard, StartsAPluginThatIsNotListedWithTheLastCommandLine) {
  Start({"clock"});
  SayMethod("StartProcess", R"(,"processName":"shop")");
  EXPECT_TRUE(IsRunning("shop"));
  EXPECT_THAT(Run("shop").request.arguments, ElementsAre("--endpoint", "e"));
}

TEST_F(Guard, StartingAPluginThatRunsChangesNothing) {
  Start({"clock"});
  SayMethod("StartProcess", R"(,"processName":"clock")");
  EXPECT_EQ(Runs("clock"), 1u);
}

TEST_F(Guard, WhenTheFrameEndsPluginsMayEndByThemselvesFirst) {
  Start({"clock", "relay"});
  SayMethod("NotifyFrameUninit");
  EXPECT_EQ(Run("clock").asked, 0);
  End("clock", 0);
  clock_.Advance(Milliseconds(2000));
  EXPECT_EQ(Run("relay").asked, 1);
  clock_.Advance(Milliseconds(2000));
  EXPECT_EQ(Run("relay").killed, 1);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(processes_.attempts, 2) << "nothing is restarted";
}

TEST_F(Guard, WhenTheFrameEndsADueRestartIsOff) {
  Start({"clock"});
  End("clock", 1);
  SayMethod("NotifyFrameUninit");
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(Runs("clock"), 1u);
}

TEST_F(Guard, AFrameThatReturnsAfterItsEndStartsThePluginsAgain) {
  Start({"clock"});
  Protect({{"clock", 0}});
  SayMethod("NotifyFrameUninit");
  End("clock", 0);
  LoseFrame();
  clock_.Advance(Milliseconds(60000));
  Connect();
  Start({"clock"});
  EXPECT_EQ(Runs("clock"), 2u);
  End("clock", 1);
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(Runs("clock"), 3u) << "it is protected again";
}

TEST_F(Guard, AFrameThatReturnsWhilePluginsEndGetsThemOnceTheyHave) {
  Start({"clock"});
  SayMethod("NotifyFrameUninit");
  LoseFrame();
  Connect();
  Start({"clock"});
  EXPECT_EQ(Runs("clock"), 1u);
  End("clock", 0);
  clock_.Advance(Milliseconds(10));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(Guard, PluginsRunOnAndAreRestartedWhileTheFrameIsAwayForAMoment) {
  Start({"clock", "relay"});
  LoseFrame();
  clock_.Advance(Milliseconds(9000));
  End("clock", 0, 9);
  clock_.Advance(Milliseconds(999));
  EXPECT_EQ(Runs("clock"), 2u);
  EXPECT_EQ(Run("relay").asked, 0);
  Connect();
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(Run("relay").asked, 0);
  EXPECT_TRUE(IsRunning("clock"));
}

TEST_F(Guard, PluginsAreStoppedInOrderWhenTheFrameStaysAway) {
  Start({"clock", "relay"});
  LoseFrame();
  clock_.Advance(Milliseconds(9999));
  EXPECT_EQ(Run("clock").asked, 0);
  clock_.Advance(Milliseconds(1));
  EXPECT_EQ(Run("clock").asked, 1);
  EXPECT_EQ(Run("relay").asked, 1);
  End("clock", 1);
  clock_.Advance(Milliseconds(2000));
  EXPECT_EQ(Run("relay").killed, 1);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(processes_.attempts, 2);
}

TEST_F(Guard, AFrameThatReturnsAfterItsPluginsWereStoppedGetsThemAgain) {
  Start({"clock"});
  LoseFrame();
  clock_.Advance(Milliseconds(20000));
  ASSERT_FALSE(IsRunning("clock"));
  Connect();
  Start({"clock"});
  clock_.Advance(Milliseconds(10));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(Guard, AFrameThatReturnsInTimeWithTheSameCommandLineFindsItsPluginsAsTheyWere) {
  Start({"clock"});
  LoseFrame();
  Connect();
  Start({"clock"});
  EXPECT_EQ(Runs("clock"), 1u);
  EXPECT_EQ(Run("clock").asked, 0);
}

TEST_F(Guard, AFrameThatReturnsInTimeWithAnotherCommandLineGetsThemRestarted) {
  Start({"clock"});
  LoseFrame();
  Connect();
  Start({"clock"}, "--endpoint new");
  EXPECT_EQ(Run("clock").asked, 1);
  End("clock", 0);
  clock_.Advance(Milliseconds(10));
  EXPECT_THAT(Run("clock").request.arguments, ElementsAre("--endpoint", "new"));
}

TEST_F(Guard, AnEndThatNobodyHeardIsToldToTheNextFrameUnlessThePluginRunsAgain) {
  Start({"clock", "relay"});
  LoseFrame();
  End("clock", 0);
  End("relay", 1);
  clock_.Advance(Milliseconds(100));
  ASSERT_TRUE(IsRunning("relay"));
  Connect();
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock"));
  LoseFrame();
  Connect();
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock")) << "told once";
}

TEST_F(Guard, MalformedAndUnknownMessagesCostOneLineEach) {
  Start({"clock"});
  frame_.sent.clear();
  capture_.Clear();
  const char* const texts[] = {
      "",
      "nonsense",
      "[1,2]",
      "null",
      R"({"requestData":{"method":"NotifyLPCFrameInit"}})",
      R"({"guid":"g","requestData":{"method":"GetMainProcessPath"}})",
      R"({"guid":"g","requestData":{"method":"NotifyFrameInitState","initState":"1","PluginList":["shop"]}})",
      R"({"guid":"g","requestData":{"method":"StartProcess"}})",
      R"({"guid":"g","requestData":{"method":"StopProcess","processName":7}})",
      (R"({"guid":"g","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[)"
       R"({"processName":"clock"}]}})"),
      R"({"guid":"g","responseData":"?"})",
  };
  for (const char* const text : texts) Say(text);
  EXPECT_EQ(CountInLog("a message of the frame is ignored: "), std::size(texts));
  EXPECT_EQ(capture_.Lines().size(), std::size(texts));
  EXPECT_THAT(frame_.sent, IsEmpty());
  EXPECT_EQ(processes_.attempts, 1);
  EXPECT_TRUE(IsRunning("clock"));
}

// ------------------------------------------------------------------------------------- The guard's end

TEST_F(Guard, WhenItEndsAllPluginsAreAskedAtOnceAndItIsDoneWhenTheyAreGone) {
  Start({"clock", "relay"});
  bool done = false;
  supervisor_->Shutdown([&] { done = true; });
  EXPECT_EQ(Run("clock").asked, 1);
  EXPECT_EQ(Run("relay").asked, 1);
  End("clock", 0);
  EXPECT_FALSE(done);
  End("relay", 0);
  EXPECT_TRUE(done);
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock", "relay"));
  EXPECT_EQ(processes_.attempts, 2);
}

TEST_F(Guard, WhenItEndsWithNothingRunningItIsDoneAtOnce) {
  bool done = false;
  supervisor_->Shutdown([&] { done = true; });
  EXPECT_TRUE(done);
}

TEST_F(Guard, WhenItEndsItWaitsLessThanThreeSecondsForPluginsThatDoNot) {
  AddManifest("slow", ", \"stopGraceMs\": 60000");
  Start({"clock", "slow"});
  bool done = false;
  supervisor_->Shutdown([&] { done = true; });
  clock_.Advance(Milliseconds(2000));
  EXPECT_EQ(Run("clock").killed, 1);
  EXPECT_EQ(Run("slow").killed, 0);
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Run("slow").killed, 1);
  EXPECT_TRUE(done);
}

TEST_F(Guard, WhenItEndsItDoesNotWaitForAProcessThatOutlivesItsKill) {
  processes_.next_end_when_killed = false;
  Start({"clock"});
  bool done = false;
  supervisor_->Shutdown([&] { done = true; });
  clock_.Advance(Milliseconds(2799));
  EXPECT_FALSE(done);
  clock_.Advance(Milliseconds(1));
  EXPECT_TRUE(done);
}

TEST_F(Guard, WhenItEndsPluginsThatWereLetEndAreAskedAtOnce) {
  Start({"clock"});
  SayMethod("NotifyFrameUninit");
  bool done = false;
  supervisor_->Shutdown([&] { done = true; });
  EXPECT_EQ(Run("clock").asked, 1);
  End("clock", 0);
  EXPECT_TRUE(done);
}

TEST_F(Guard, WhileItEndsNothingIsStartedAndASecondSignalChangesNothing) {
  Start({"clock"});
  int done = 0;
  supervisor_->Shutdown([&] { ++done; });
  supervisor_->Shutdown([&] { done += 100; });
  Start({"relay"});
  SayMethod("StartProcess", R"(,"processName":"shop")");
  End("clock", 0);
  clock_.Advance(Milliseconds(100000));
  EXPECT_EQ(done, 1);
  EXPECT_EQ(processes_.attempts, 1);
}

// ------------------------------------------------------------------------------- Where plugins are

std::string InJson(std::string path) {
  for (std::size_t at = 0; (at = path.find('\\', at)) != std::string::npos; at += 2) path.insert(at, 1, '\\');
  return path;
}

class MovingGuard : public test::SupervisorScene {
 protected:
  MovingGuard() {
    MakeSupervisor(true);
    Connect();
  }
  void SayMainProcess(const std::string& path) {
    Say(R"({"code":"0","msg":"","guid":"g","responseData":{"mainProcessPath":")" + InJson(path) + "\"}}");
  }
};

TEST_F(MovingGuard, PluginsAreBesideTheProgramThatTheFrameNames) {
  AddManifestIn(directory_.path() / "host" / "plugins", "cook");
  SayMainProcess((directory_.path() / "host" / "Host.exe").string());
  Start({"cook"});
  EXPECT_TRUE(IsRunning("cook"));
}

TEST_F(MovingGuard, TheProgramMayBeNamedWithBackslashesAndAfterTheList) {
  AddManifestIn(directory_.path() / "host" / "plugins", "cook");
  Start({"cook", "clock"});
  ASSERT_FALSE(IsRunning("cook"));
  ASSERT_TRUE(IsRunning("clock"));
  std::string path = directory_.path().string() + "/host/Host.exe";
  std::replace(path.begin(), path.end(), '/', '\\');
  SayMainProcess(path);
  EXPECT_TRUE(IsRunning("cook"));
  EXPECT_EQ(Runs("clock"), 1u);
}

TEST_F(MovingGuard, AProgramWithoutPluginsBesideItOrWithoutFolderChangesNothing) {
  SayMainProcess((directory_.path() / "elsewhere" / "Host.exe").string());
  SayMainProcess("Host.exe");
  SayMainProcess("plugins/../Host.exe");
  EXPECT_EQ(supervisor_->plugins_folder(), plugins_folder());
}

TEST_F(Guard, AFolderThatTheCommandLineNamesIsNotChangedByTheFrame) {
  std::filesystem::create_directories(directory_.path() / "host" / "plugins");
  Say(R"({"guid":"g","responseData":{"mainProcessPath":")" +
      InJson((directory_.path() / "host" / "Host.exe").string()) + "\"}}");
  EXPECT_EQ(supervisor_->plugins_folder(), plugins_folder());
}

}  // namespace
}  // namespace guard
