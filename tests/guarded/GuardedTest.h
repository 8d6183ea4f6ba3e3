#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Folder.h"
#include "support/ChildProcess.h"

namespace tolm::test {

/// A test of the whole system: the ready-made host in a folder of its own, and whatever it starts.
class GuardedTest : public ::testing::Test {
 protected:
  void TearDown() override;

  /// Starts the host with the plugins that have a manifest, and waits until the frame listens.
  ChildProcess& StartHost(int frame_type = 1);
  /// Starts the host, announces the plugins and waits until each has initialised.
  ChildProcess& StartAll();
  ChildProcess& Launch(std::vector<std::string> command);

  /// Announces the plugins when the guard is there: the frame would wait five seconds for the answer of one
  /// that comes in the middle.
  static void Announce(ChildProcess& host) {
    EXPECT_TRUE(host.WaitForLine("Get client info"));
    host.Type("announce --endpoint host");
  }
  /// How often the host was told this of this plugin: "connected", "initialised" and so on.
  static std::size_t CountOf(const ChildProcess& host, const std::string& id, const std::string& event) {
    return host.CountLines("plugin " + id + ": " + event);
  }
  /// Waits until the host was told so `count` times.
  static bool SeeEvent(ChildProcess& host, const std::string& id, const std::string& event,
                       std::size_t count = 1) {
    return host.WaitForLines("plugin " + id + ": " + event, count);
  }
  /// What a call of `url` gives: "answer from a: text", or why there is none.
  std::string Call(ChildProcess& host, const std::string& url, const std::string& body = {});
  /// Tells Call that the test itself has typed so many calls.
  void CountCalls(const ChildProcess& host, int calls) { calls_[&host] += calls; }
  /// The only process that runs `program`; waits until there is just one.
  ProcessId OnlyProcessOf(const std::filesystem::path& program) const;
  ProcessId PluginProcess(const std::string& id) const { return OnlyProcessOf(folder_.Plugin(id)); }
  /// Kills a plugin and waits until its successor has initialised.
  void KillAndSeeItBack(ChildProcess& host, const std::string& id);

  /// Stops the host and checks how it ends, and that it leaves nothing.
  void StopHost(ChildProcess& host);
  void ExpectNothingLeft() const;

  Folder folder_;

 private:
  std::map<const ChildProcess*, int> calls_;
  std::vector<std::unique_ptr<ChildProcess>> children_;
};

}  // namespace tolm::test
