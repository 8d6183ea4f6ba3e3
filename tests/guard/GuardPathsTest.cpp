#include <gtest/gtest.h>

#include <string>

#include "common/AgentNames.h"

namespace tolm::test {
namespace {

using TolmLPCFrame::AgentEventName;
using TolmLPCFrame::NormalizePath;

/// What becomes of a path; "fails" when nothing does and the path is as it was.
std::string Normalized(std::string path) {
  const std::string before = path;
  if (NormalizePath(path)) return path;
  EXPECT_EQ(path, before);
  return "fails";
}

TEST(GuardPaths, APathWithoutAnythingToResolveStays) {
  EXPECT_EQ(Normalized("C:\\App\\a.exe"), "C:\\App\\a.exe");
  EXPECT_EQ(Normalized("a"), "a");
  EXPECT_EQ(Normalized("a b\\c d"), "a b\\c d");
}

TEST(GuardPaths, EmptySegmentsAreDropped) {
  EXPECT_EQ(Normalized("\\a\\b"), "a\\b");
  EXPECT_EQ(Normalized("a\\\\b"), "a\\b");
  EXPECT_EQ(Normalized("a\\b\\"), "a\\b");
  EXPECT_EQ(Normalized("\\\\server\\share\\\\\\a"), "server\\share\\a");
}

TEST(GuardPaths, SegmentsOfTwoDotsTakeTheOneBeforeAway) {
  EXPECT_EQ(Normalized("C:\\App\\..\\a"), "C:\\a");
  EXPECT_EQ(Normalized("a\\b\\c\\..\\..\\d"), "a\\d");
  EXPECT_EQ(Normalized("a\\..\\b"), "b");
  EXPECT_EQ(Normalized("a\\\\..\\b"), "b");
  EXPECT_EQ(Normalized("C:\\..\\a"), "a");
}

TEST(GuardPaths, SingleDotsAndNamesOfDotsSurvive) {
  EXPECT_EQ(Normalized("a\\.\\b"), "a\\.\\b");
  EXPECT_EQ(Normalized(".\\a"), ".\\a");
  EXPECT_EQ(Normalized("."), ".");
  EXPECT_EQ(Normalized("a\\...\\b"), "a\\...\\b");
  EXPECT_EQ(Normalized("a\\..b\\c.."), "a\\..b\\c..");
  EXPECT_EQ(Normalized("a\\.\\..\\b"), "a\\b");
}

TEST(GuardPaths, ClimbingAboveTheFirstSegmentFails) {
  EXPECT_EQ(Normalized("..\\a"), "fails");
  EXPECT_EQ(Normalized("a\\..\\..\\b"), "fails");
  EXPECT_EQ(Normalized(".."), "fails");
  EXPECT_EQ(Normalized("\\..\\a\\b"), "fails");
}

TEST(GuardPaths, NothingLeftFails) {
  EXPECT_EQ(Normalized(""), "fails");
  EXPECT_EQ(Normalized("\\"), "fails");
  EXPECT_EQ(Normalized("\\\\\\"), "fails");
  EXPECT_EQ(Normalized("a\\.."), "fails");
}

TEST(GuardPaths, SlashesSeparateNothing) {
  EXPECT_EQ(Normalized("/opt/app/../b"), "/opt/app/../b");
  EXPECT_EQ(Normalized("/opt//app\\TolmAgent"), "/opt//app\\TolmAgent");
  EXPECT_EQ(Normalized("/opt/app\\..\\b"), "b");
}

TEST(GuardPaths, AnAgentsEventIsNamedForItsPathWithSlashes) {
  EXPECT_EQ(AgentEventName("C:\\App\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe"),
            "Global\\C:/App/TolmAgent/TolmAgent/TolmAgent_Exe64.exe-agent");
  EXPECT_EQ(AgentEventName("a\\..\\b\\\\c"), "Global\\b/c-agent");
  EXPECT_EQ(AgentEventName("\\opt\\.\\a"), "Global\\opt/./a-agent");
}

TEST(GuardPaths, AnAgentsPathThatCannotBeNormalizedNamesItsEventAsItIs) {
  EXPECT_EQ(AgentEventName("..\\a\\\\b"), "Global\\../a//b-agent");
  EXPECT_EQ(AgentEventName(""), "Global\\-agent");
}

}  // namespace
}  // namespace tolm::test
