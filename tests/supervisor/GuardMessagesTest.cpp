#include "GuardMessages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TolmProto/RapidJsonProto.h"

namespace guard {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Flags = std::vector<std::pair<std::string, bool>>;

FrameMessage Parse(const std::string& text) {
  FrameMessage message;
  std::string why;
  EXPECT_TRUE(ParseFrameMessage(text, message, why)) << why;
  return message;
}

template <typename T>
T ParseAs(const std::string& text) {
  const FrameMessage message = Parse(text);
  EXPECT_TRUE(std::holds_alternative<T>(message.says)) << text;
  return std::holds_alternative<T>(message.says) ? std::get<T>(message.says) : T();
}

std::string WhyNot(const std::string& text) {
  FrameMessage message;
  std::string why;
  EXPECT_FALSE(ParseFrameMessage(text, message, why)) << text;
  return why;
}

std::string Built(const std::string& text, const std::string& path) {
  proto::CRapidJsonProto json;
  EXPECT_TRUE(json.set_str(text));
  return json.get_v(path, "");
}

TEST(GuardMessages, TheFrameHasStarted) {
  const FrameMessage message = Parse(R"({"guid":"g1","requestData":{"method":"NotifyLPCFrameInit"}})");
  EXPECT_TRUE(std::holds_alternative<FrameStarted>(message.says));
  EXPECT_EQ(message.guid, "g1");
}

TEST(GuardMessages, PluginsAreToRun) {
  const auto start = ParseAs<StartPlugins>(
      R"({"guid":"g","requestData":{"method":"NotifyFrameInitState","initState":1,"cmdline":"--a \"b c\"",)"
      R"("PluginList":["clock","relay"]}})");
  EXPECT_EQ(start.plugins, (std::vector<std::string>{"clock", "relay"}));
  EXPECT_EQ(start.command_line, "--a \"b c\"");
}

TEST(GuardMessages, NoPluginsAndNoCommandLineAreNoMembers) {
  const auto start =
      ParseAs<StartPlugins>(R"({"guid":"g","requestData":{"method":"NotifyFrameInitState","initState":1}})");
  EXPECT_TRUE(start.plugins.empty());
  EXPECT_EQ(start.command_line, "");
}

TEST(GuardMessages, ProtectionIsSet) {
  const auto protection = ParseAs<SetProtection>(
      R"({"guid":"g","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[)"
      R"({"processName":"clock","type":0},{"processName":"relay","type":1}],"total":2}})");
  EXPECT_EQ(protection.plugins, (Flags{{"clock", false}, {"relay", true}}));
  EXPECT_TRUE(
      ParseAs<SetProtection>(R"({"guid":"g","requestData":{"method":"SetProcessGuardStateList","total":0}})")
          .plugins.empty());
}

TEST(GuardMessages, OnePluginIsStartedOrStopped) {
  EXPECT_EQ(
      ParseAs<StartPlugin>(R"({"guid":"g","requestData":{"method":"StartProcess","processName":"clock"}})")
          .plugin,
      "clock");
  EXPECT_EQ(
      ParseAs<StopPlugin>(R"({"guid":"g","requestData":{"method":"StopProcess","processName":"clock"}})")
          .plugin,
      "clock");
}

TEST(GuardMessages, NoticesWithoutParameters) {
  ParseAs<InitStatesChanged>(R"({"guid":"g","requestData":{"method":"NotifyState","type":1}})");
  ParseAs<FrameEnds>(R"({"guid":"g","requestData":{"method":"NotifyFrameUninit"}})");
  ParseAs<FrameEnds>(R"({"requestData":{"method":"NotifyFrameUninit"}})");
}

TEST(GuardMessages, AnswersAreKnownByWhatTheyHold) {
  EXPECT_EQ(ParseAs<MainProcessPath>(
                R"({"code":"0","msg":"","guid":"g","responseData":{"mainProcessPath":"/opt/host"}})")
                .path,
            "/opt/host");
  EXPECT_EQ(
      ParseAs<InitStates>(R"({"code":"0","msg":"","guid":"g","responseData":{"initInfoList":[)"
                          R"({"processName":"clock","initState":1},{"processName":"relay","initState":0}],)"
                          R"("total":2}})")
          .plugins,
      (Flags{{"clock", true}, {"relay", false}}));
  EXPECT_TRUE(
      ParseAs<InitStates>(R"({"code":"0","msg":"","guid":"g","responseData":{"total":0}})").plugins.empty());
}

TEST(GuardMessages, WhatIsNoMessageSaysWhy) {
  struct Case {
    const char* text;
    const char* why;
  };
  const Case cases[] = {
      {"", "not a JSON document"},
      {"hello", "not a JSON document: \"hello\""},
      {R"({"guid":"g")", "not a JSON document"},
      {"[]", "it has no method"},
      {"{}", "it has no method"},
      {R"({"guid":"g","requestData":{"method":7}})", "it has no method"},
      {R"({"guid":"g","requestData":{"method":"Dance"}})", "\"Dance\": its method is not known"},
      {R"({"guid":"g","requestData":{"method":"startprocess","processName":"c"}})",
       "its method is not known"},
      {R"({"requestData":{"method":"NotifyLPCFrameInit"}})", "no guid"},
      {R"({"guid":5,"requestData":{"method":"NotifyLPCFrameInit"}})", "no guid"},
      {R"({"requestData":{"method":"SetProcessGuardStateList","total":0}})", "no guid"},
      {R"({"guid":"g","requestData":{"method":"NotifyFrameInitState"}})", "initState is not 1"},
      {R"({"guid":"g","requestData":{"method":"NotifyFrameInitState","initState":0}})", "initState is not 1"},
      {R"({"guid":"g","requestData":{"method":"StartProcess"}})", "no processName"},
      {R"({"guid":"g","requestData":{"method":"StopProcess","processName":""}})", "no processName"},
      {R"({"guid":"g","requestData":{"method":"StopProcess","processName":{}}})", "no processName"},
      {R"({"guid":"g","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[{"type":0}]}})",
       "guardInfoList[1] has no processName"},
      {R"({"guid":"g","requestData":{"method":"SetProcessGuardStateList","guardInfoList":[)"
       R"({"processName":"a","type":1},)"
       R"({"processName":"b","type":2}]}})",
       "guardInfoList[2] has no processName, or its type is neither 0 nor 1"},
      {R"({"guid":"g","responseData":{}})", "answers nothing"},
      {R"({"guid":"g","responseData":{"mainProcessPath":""}})", "answers nothing"},
      {R"({"guid":"g","responseData":{"total":1,"initInfoList":["clock"]}})",
       "initInfoList[1] has no processName"},
  };
  for (const Case& one : cases) EXPECT_THAT(WhyNot(one.text), HasSubstr(one.why)) << one.text;
}

TEST(GuardMessages, TheReasonIsShortAndPrintableHoweverLongTheTextIs) {
  const std::string why = WhyNot(std::string(1000000, '\x01'));
  EXPECT_LT(why.size(), 300u);
  EXPECT_EQ(why.find('\x01'), std::string::npos);
  EXPECT_LT(WhyNot(R"({"guid":"g","requestData":{"method":")" + std::string(100000, 'm') + "\"}}").size(),
            300u);
  EXPECT_LT(WhyNot(R"({"guid":")" + std::string(100000, 'm') + "\"}").size(), 300u);
}

TEST(GuardMessages, QuestionsHaveGuidsOfTheirOwn) {
  const std::string path = BuildMainProcessPathQuestion();
  const std::string states = BuildInitStatesQuestion("g1");
  EXPECT_EQ(Built(path, "/requestData/method"), "GetMianProcessPath");
  EXPECT_EQ(Built(states, "/requestData/method"), "GetProcessInitStateList");
  EXPECT_EQ(Built(path, "/guid").size(), 36u);
  EXPECT_EQ(Built(states, "/guid"), "g1");
  EXPECT_NE(Built(path, "/guid"), Built(BuildMainProcessPathQuestion(), "/guid"));
}

TEST(GuardMessages, AnEndNamesThePlugin) {
  const std::string text = BuildProcessEnded("clock");
  proto::CRapidJsonProto json;
  ASSERT_TRUE(json.set_str(text));
  EXPECT_EQ(json.get_v("/requestData/method", ""), "NotifyProcessState");
  EXPECT_EQ(json.get_int_v("/requestData/state", -1), 0);
  EXPECT_EQ(json.get_v("/requestData/processId", ""), "clock");
  EXPECT_FALSE(json.get_v("/guid", "").empty());
}

TEST(GuardMessages, RepliesEchoGuidAndMethod) {
  EXPECT_EQ(BuildFrameStartedReply("g1"), R"({"guid":"g1","requestData":{"method":"NotifyLPCFrameInit"}})");
  EXPECT_EQ(BuildSetProtectionReply("g 2"),
            R"({"guid":"g 2","requestData":{"method":"SetProcessGuardStateList"}})");
}

}  // namespace
}  // namespace guard
