#include "GuardedTest.h"

#include <filesystem>
#include <iostream>
#include <utility>

#include "support/TestLogs.h"
#include "support/Wait.h"

namespace tolm::test {

namespace fs = std::filesystem;

void GuardedTest::TearDown() {
  if (!HasFailure()) return;
  for (const auto& child : children_) {
    std::cout << "--- process " << child->id() << " printed\n" << child->Output();
  }
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(folder_.path() / "TolmAgent" / "log", none)) {
    std::cout << "--- " << entry.path().filename() << "\n" << ReadAll(entry.path());
  }
}

ChildProcess& GuardedTest::Launch(std::vector<std::string> command) {
  return *children_.emplace_back(std::make_unique<ChildProcess>(std::move(command)));
}

ChildProcess& GuardedTest::StartHost(int frame_type) {
  ChildProcess& host = Launch({folder_.Host().string(), "--frame-type", std::to_string(frame_type), "--log",
                               TestLogFolder() ? "trace" : "info"});
  EXPECT_TRUE(host.WaitForLine("the frame listens as \"host\""));
  return host;
}

ChildProcess& GuardedTest::StartAll() {
  ChildProcess& host = StartHost();
  Announce(host);
  for (const auto& entry : fs::directory_iterator(folder_.path() / "plugins")) {
    const std::string id = entry.path().filename().string();
    EXPECT_TRUE(SeeEvent(host, id, "initialised")) << id;
  }
  return host;
}

std::string GuardedTest::Call(ChildProcess& host, const std::string& url, const std::string& body) {
  const std::string before = "call " + std::to_string(++calls_[&host]) + ": ";
  host.Type("call " + url + " " + body);
  const std::string line = host.WaitForLine(before).value_or(before + "nothing (");
  return line.substr(before.size(), line.rfind(" (") - before.size());
}

ProcessId GuardedTest::OnlyProcessOf(const fs::path& program) const {
  std::vector<ProcessId> found;
  EXPECT_TRUE(WaitFor([&] { return (found = folder_.ProcessesOf(program)).size() == 1; }, kPatience))
      << found.size() << " processes run " << program;
  return found.size() == 1 ? found.front() : -1;
}

void GuardedTest::KillAndSeeItBack(ChildProcess& host, const std::string& id) {
  const std::size_t inited = CountOf(host, id, "initialised");
  const ProcessId killed = PluginProcess(id);
  ASSERT_GT(killed, 0);
  KillProcess(killed);
  EXPECT_TRUE(SeeEvent(host, id, "initialised", inited + 1));
  EXPECT_NE(PluginProcess(id), killed);
}

void GuardedTest::StopHost(ChildProcess& host) {
  host.Type("stop");
  EXPECT_EQ(host.WaitExit(), (Exit{0, false}));
  ExpectNothingLeft();
}

void GuardedTest::ExpectNothingLeft() const {
  WaitFor([this] { return folder_.Processes().empty() && folder_.RuntimeFiles().empty(); }, kPatience);
  EXPECT_TRUE(folder_.Processes().empty()) << ::testing::PrintToString(folder_.Processes());
  EXPECT_TRUE(folder_.RuntimeFiles().empty()) << ::testing::PrintToString(folder_.RuntimeFiles());
}

}  // namespace tolm::test
