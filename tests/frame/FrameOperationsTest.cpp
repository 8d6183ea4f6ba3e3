#include <stdexcept>
#include <string>
#include <vector>

#include "FrameScript.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The exported operations that only pass on what they are given.
class FrameOperations : public FrameTest {};

TEST_F(FrameOperations, RegisteringTheCallbackLogsAndReplacesThePair) {
  Host other;
  RegisterLpcMsgCallback(&Host::Receive, &other);
  RegisterLpcMsgCallback(&Host::Receive, &host_);
  EXPECT_THAT(log_.Lines(), ElementsAre(Info("RegisterLpcMsgCallback", "RegisterLpcMsgCallback yet"),
                                        Info("RegisterLpcMsgCallback", "RegisterLpcMsgCallback yet")));
  FrameCallBackData data;
  data.LpcMsgType = kLpcMsgPush;
  EXPECT_TRUE(Manager().CallLpcCallBack(data));
  EXPECT_EQ(host_.Count(), 1u);
  EXPECT_EQ(other.Count(), 0u);
}

TEST_F(FrameOperations, RegisteringUrlsLogsEachInOrder) {
  RegisterUrl({"/b", "/a", "/b"});
  EXPECT_THAT(log_.Lines(), ElementsAre(Info("RegisterUrl", "Up RegisterUrl url[/b]"),
                                        Info("RegisterUrl", "Up RegisterUrl url[/a]"),
                                        Info("RegisterUrl", "Up RegisterUrl url[/b]")));
}

TEST_F(FrameOperations, RegisteringNoUrlLogsNothing) {
  RegisterUrl({});
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(FrameOperations, ThatPluginsMayStartIsLoggedAndToldTheGuardUnchanged) {
  TolmLPCFrameNotifyStartPlugins("--x \"y z\" %s");
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("log TolmLPCFrameNotifyStartPlugins plugin_cmdline[--x \"y z\" %s]",
                          "guard.NotifyFrameInitedFinished --x \"y z\" %s"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Info("TolmLPCFrameNotifyStartPlugins",
                               "TolmLPCFrameNotifyStartPlugins plugin_cmdline[--x \"y z\" %s]")));
}

TEST_F(FrameOperations, AListedPluginIsStartedThroughTheGuardUnderItsOwnId) {
  PlatformInfo info;
  info.plugin_map["key"].plugin_id = "id";
  List(info);
  FromNowOn();
  TolmLPCFrameStartPlugin("key");
  EXPECT_THAT(Journal::Entries(), ElementsAre("log TolmLPCFrameStartPlugin plugin_id[key]",
                                              "guard.ControlGuardProcess id start"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Info("TolmLPCFrameStartPlugin", "TolmLPCFrameStartPlugin plugin_id[key]")));
}

TEST_F(FrameOperations, AnUnlistedPluginIsNotStarted) {
  TolmLPCFrameStartPlugin("nobody");
  EXPECT_THAT(Journal::Of("guard."), IsEmpty());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Info("TolmLPCFrameStartPlugin", "TolmLPCFrameStartPlugin plugin_id[nobody]"),
                          Error("CLPCIntegrate::GetPluginInfoByID", "find plugin_data failed, [nobody]")));
}

TEST_F(FrameOperations, TheLastErrorIsTheTransports) {
  transport_.last_error = 6;
  EXPECT_EQ(GetLPCLastError(), 6);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(FrameOperations, SubscribingLeavesItsArgumentAndSendsNothing) {
  LPCData data;
  data.msg_type = 5;
  data.url = "/x";
  data.http_headers["a"] = "b";
  data.body = "body";
  const LPCData before = data;
  SubscribeNotify(data);
  EXPECT_TRUE(data == before);
  EXPECT_THAT(Journal::Entries(), IsEmpty());
}

TEST_F(FrameOperations, WhateverIsThrownBelowTheThinOperationsStaysInside) {
  const auto throwing = [] { throw std::runtime_error("scripted"); };
  guard_.notify_frame_inited_finished = throwing;
  guard_.control_guard_process = throwing;
  List(Plugins({"A"}));
  EXPECT_NO_THROW(TolmLPCFrameNotifyStartPlugins("x"));
  EXPECT_NO_THROW(TolmLPCFrameStartPlugin("A"));
}

TEST_F(FrameOperations, ATransportThatThrowsInsteadOfItsLastErrorLetsNoExceptionOut) {
  transport_.last_error = []() -> int { throw std::runtime_error("scripted"); };
  EXPECT_NO_THROW(GetLPCLastError());
}

TEST_F(FrameOperations, BeforeTheStartEveryQuestionHasAnEmptyAnswer) {
  int time_out = 77;
  EXPECT_FALSE(IsPluginURL(time_out, "/x"));
  EXPECT_EQ(time_out, 77);
  std::vector<std::string> headers = {"old"};
  GetHttpHeaders(headers);
  EXPECT_THAT(headers, IsEmpty());
}

}  // namespace
}  // namespace tolm::test
