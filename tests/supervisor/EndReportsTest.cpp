// Ends that the frame is told of, and their successors.

#include <gmock/gmock.h>

#include "SupervisorScene.h"

namespace guard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EndReport : public test::SupervisorScene {
 protected:
  EndReport() {
    MakeSupervisor(false);
    Connect();
    clock_.RunPosted();
    frame_.sent.clear();
  }
};

TEST_F(EndReport, TellsTheFrameOfTheEndOfWhatItCountsAsInitialised) {
  Start({"clock"});
  frame_.states["clock"] = 1;
  End("clock", 1);
  EXPECT_THAT(frame_.Methods(), ElementsAre("GetProcessInitStateList", "NotifyProcessState"));
  EXPECT_EQ(Runs("clock"), 1u);
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(Runs("clock"), 2u);
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock"));
}

TEST_F(EndReport, TellsAtOnceOfAnEndWithoutSuccessor) {
  frame_.answers = false;
  Start({"clock"});
  End("clock", 0);
  EXPECT_THAT(frame_.Methods(), ElementsAre("NotifyProcessState", "GetProcessInitStateList"));
}

// The frame may handle the notice at any time, also behind the successor's "InitFinish".
TEST_F(EndReport, ANoticeThatWouldChangeNothingIsNotSentBeforeASuccessor) {
  frame_.notes_ends = false;
  Start({"clock"});
  End("clock", 1);
  clock_.Advance(Milliseconds(50));
  ASSERT_EQ(Runs("clock"), 2u);
  EXPECT_THAT(frame_.Ends(), IsEmpty());
}

TEST_F(EndReport, ASuccessorWaitsUntilTheFrameHasSaidHowItCountsItsPredecessor) {
  frame_.answers = false;
  Start({"clock"});
  End("clock", 1);
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Runs("clock"), 1u);
  frame_.Answer();
  clock_.Advance(Milliseconds(10));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, AnAnswerToAnEarlierQuestionSaysNothingOfAnEnd) {
  frame_.answers = false;
  Start({"clock"});
  SayMethod("NotifyState", ",\"type\":1");
  const std::string earlier = frame_.sent.back().guid;
  End("clock", 1);
  frame_.Answer(earlier);
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Runs("clock"), 1u);
  frame_.states["clock"] = 1;  // its "InitFinish" was under way
  frame_.Answer();
  clock_.Advance(Milliseconds(100));
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock"));
}

TEST_F(EndReport, ASuccessorWaitsUntilTheFrameCountsItsPredecessorAsEnded) {
  frame_.notes_ends = false;
  frame_.states["clock"] = 1;
  Start({"clock"});
  End("clock", 1);
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Runs("clock"), 1u);
  EXPECT_EQ(frame_.Methods().back(), "GetProcessInitStateList") << "it is asked again";
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock")) << "and told once";
  frame_.Note("clock");
  clock_.Advance(Milliseconds(20));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, ASuccessorDoesNotWaitForAFrameThatDoesNotAnswer) {
  frame_.answers = false;
  Start({"clock"});
  End("clock", 1);
  clock_.Advance(Milliseconds(900));
  EXPECT_EQ(Runs("clock"), 1u);
  clock_.Advance(Milliseconds(200));
  ASSERT_EQ(Runs("clock"), 2u);
  frame_.states["clock"] = 1;
  frame_.Answer();
  clock_.RunPosted();
  EXPECT_THAT(frame_.Ends(), IsEmpty()) << "it may be the successor that has initialised";
  EXPECT_EQ(CountInLog("the frame took longer than 1000 ms to note its end"), 1u);
}

TEST_F(EndReport, ASuccessorDoesNotWaitForAFrameThatDoesNotNoteTheEnd) {
  frame_.notes_ends = false;
  frame_.states["clock"] = 1;
  Start({"clock"});
  End("clock", 1);
  clock_.Advance(Milliseconds(900));
  EXPECT_EQ(Runs("clock"), 1u);
  clock_.Advance(Milliseconds(200));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, ASuccessorThatTheHostAsksForWaitsAsWell) {
  frame_.answers = false;
  Start({"clock"});
  End("clock", 0);
  SayMethod("StartProcess", R"(,"processName":"clock")");
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Runs("clock"), 1u);
  frame_.Answer();
  clock_.Advance(Milliseconds(10));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, ASuccessorWithAnotherCommandLineWaitsAsWell) {
  frame_.answers = false;
  Start({"clock"});
  Start({"clock"}, "--endpoint other");
  End("clock", 0);
  clock_.Advance(Milliseconds(500));
  EXPECT_EQ(Runs("clock"), 1u);
  frame_.Answer();
  clock_.Advance(Milliseconds(10));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, OneThatIsNotListedIsToldOfAndHasNothingToWaitFor) {
  frame_.states.erase("clock");
  frame_.notes_ends = false;
  Start({"clock"});
  End("clock", 1);
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock"));
  clock_.Advance(Milliseconds(50));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, OfSeveralEndsEachIsWaitedForByItself) {
  frame_.notes_ends = false;
  frame_.states["clock"] = 1;
  Start({"clock", "relay"});
  End("clock", 1);
  End("relay", 1);
  clock_.Advance(Milliseconds(100));
  EXPECT_EQ(Runs("clock"), 1u);
  EXPECT_EQ(Runs("relay"), 2u);
  frame_.Note("clock");
  clock_.Advance(Milliseconds(20));
  EXPECT_EQ(Runs("clock"), 2u);
}

TEST_F(EndReport, AnEndThatAFrameDidNotSpeakAboutAnyMoreIsToldToTheNextOne) {
  frame_.answers = false;
  AddManifest("clock", R"(, "restart": {"firstDelayMs": 500})");
  Start({"clock"});
  End("clock", 1);
  LoseFrame();
  frame_.answers = true;
  frame_.states["clock"] = 1;
  Connect();
  clock_.RunPosted();
  EXPECT_THAT(frame_.Ends(), ElementsAre("clock"));
}

}  // namespace
}  // namespace guard
