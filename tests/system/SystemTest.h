#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "HostSide.h"
#include "support/ChildProcess.h"
#include "support/TempDirectory.h"

namespace tolm::test {

/// A test with the frame in this process and plugins as children of it, on endpoints of its own.
class SystemTest : public ::testing::Test {
 protected:
  void TearDown() override;

  static constexpr char kEndpoint[] = "frame";

  /// Starts the frame; these are the plugins that the host lists.
  void StartFrame(const std::vector<std::string>& plugins);
  /// 0, or -8 as TolmLPCFrameUnInit.
  int StopFrame();
  bool IsFrameRunning() const { return running_; }

  /// Starts a plugin's process and does not wait for it.
  ChildProcess& LaunchPlugin(const std::string& id, const std::string& behaviour = "plain");
  /// Starts one and waits until the host was told that it is connected and initialised.
  ChildProcess& StartPlugin(const std::string& id, const std::string& behaviour = "plain");
  /// Starts a host's process.
  ChildProcess& LaunchHost(const std::string& behaviour, const std::vector<std::string>& plugins);
  /// Starts any program.
  ChildProcess& Launch(std::vector<std::string> command);
  /// Kills a plugin and waits until the host was told so.
  void KillPlugin(ChildProcess& plugin, const std::string& id);

  RuntimeDirectory runtime_;
  HostSide host_;

 private:
  void ShowWhatHappened() const;

  bool running_ = false;
  std::vector<std::unique_ptr<ChildProcess>> children_;
};

}  // namespace tolm::test
