#include "SystemTest.h"

#include <iostream>
#include <utility>

namespace tolm::test {

void SystemTest::TearDown() {
  if (HasFailure()) ShowWhatHappened();
  if (running_) StopFrame();
  children_.clear();
}

void SystemTest::StartFrame(const std::vector<std::string>& plugins) {
  running_ = true;
  ASSERT_EQ(host_.Start(kEndpoint, plugins), TolmLPCFrame::kFrameOk) << host_.LogText();
}

int SystemTest::StopFrame() {
  running_ = false;
  return TolmLPCFrame::TolmLPCFrameUnInit();
}

ChildProcess& SystemTest::Launch(std::vector<std::string> command) {
  return *children_.emplace_back(std::make_unique<ChildProcess>(std::move(command)));
}

ChildProcess& SystemTest::LaunchPlugin(const std::string& id, const std::string& behaviour) {
  return Launch({ThisProgram().string(), "--as-plugin", behaviour, "--endpoint", kEndpoint, "--id", id});
}

ChildProcess& SystemTest::StartPlugin(const std::string& id, const std::string& behaviour) {
  const std::size_t connected = host_.CountOf(TolmLPCFrame::kLpcMsgPluginConnected, id);
  const std::size_t inited = host_.CountOf(TolmLPCFrame::kLpcMsgPluginInited, id);
  ChildProcess& plugin = LaunchPlugin(id, behaviour);
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginConnected, id, connected + 1)) << id;
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, id, inited + 1)) << id;
  return plugin;
}

ChildProcess& SystemTest::LaunchHost(const std::string& behaviour, const std::vector<std::string>& plugins) {
  std::vector<std::string> command{ThisProgram().string(), "--as-host", behaviour, kEndpoint};
  command.insert(command.end(), plugins.begin(), plugins.end());
  return Launch(std::move(command));
}

void SystemTest::KillPlugin(ChildProcess& plugin, const std::string& id) {
  const std::size_t before = host_.CountOf(TolmLPCFrame::kLpcMsgPluginDisconnected, id);
  plugin.Kill();
  EXPECT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginDisconnected, id, before + 1)) << id;
}

void SystemTest::ShowWhatHappened() const {
  std::cout << "--- the frame's log\n" << host_.LogText();
  for (const auto& child : children_) {
    std::cout << "--- process " << child->id() << " printed\n" << child->Output();
  }
}

}  // namespace tolm::test
