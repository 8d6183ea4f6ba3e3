#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "UserState.h"
#include "os/NamedEvent.h"
#include "support/ChildProcess.h"
#include "support/Processes.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace tolm::test {

inline constexpr Exit kOrderly{0, false};

inline std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

/// An agent in a folder of the test's own, with a stand-in in the place of its guard, which notes what
/// happens to it in a journal.
class AgentTest : public testing::Test {
 protected:
  AgentTest() {
    std::filesystem::create_directories(agent_path_.parent_path());
    std::filesystem::create_directories(guard_path_.parent_path());
    std::filesystem::copy_file(TEST_AGENT, agent_path_);
    PlaceGuard();
    Behave("run");
  }

  // A stand-in that is killed while it starts others may leave one of them behind.
  void TearDown() override { KillProcessesBelow(folder_); }

  void PlaceGuard() {
    // In one step: an agent that looks for it meanwhile finds all of it or nothing.
    const std::filesystem::path made = guard_path_.string() + ".new";
    std::filesystem::copy_file(TEST_STAND_IN, made);
    std::filesystem::rename(made, guard_path_);
  }
  void Behave(const std::string& mode) { std::ofstream(folder_ / "mode") << mode; }

  std::vector<std::string> Command(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), agent_path_.string());
    return arguments;
  }
  void StartAgent(const std::vector<std::string>& times = {}, const std::string& host = "") {
    std::vector<std::string> command =
        Command({host, "Client", "-process", "--restart-ms", "1", "--longest-restart-ms", "20"});
    command.insert(command.end(), times.begin(), times.end());
    agent_ = std::make_unique<ChildProcess>(std::move(command));
  }

  /// The numbers behind `word` in the journal, oldest first.
  std::vector<ProcessId> Noted(const std::string& word) const {
    std::vector<ProcessId> ids;
    std::istringstream journal(ReadAll(folder_ / "journal"));
    std::string line;
    while (std::getline(journal, line)) {
      if (line.starts_with(word + " ")) ids.push_back(std::atol(line.c_str() + word.size() + 1));
    }
    return ids;
  }
  /// Waits for the `count`th start of the guard; its process, or -1.
  ProcessId WaitForGuard(std::size_t count) const { return WaitForNoted("guard", count); }
  ProcessId WaitForNoted(const std::string& word, std::size_t count) const {
    WaitFor([&] { return Noted(word).size() >= count; }, kPatience);
    const std::vector<ProcessId> ids = Noted(word);
    return ids.size() >= count ? ids[count - 1] : -1;
  }

  std::unique_ptr<os::NamedEvent> OpenEvent() const { return os::NamedEvent::Open(event_name_); }
  std::string Log() const { return ReadAll(log_path_); }

  /// The event's name says it with slashes, and without one in front.
  std::string EventName() const {
    const std::string path = agent_path_.generic_string();
    return "Global\\" + path.substr(path.front() == '/' ? 1 : 0) + "-agent";
  }

  const RuntimeDirectory runtime_;
  const TempDirectory directory_;
  const std::filesystem::path folder_ = std::filesystem::canonical(directory_.path());
  const std::filesystem::path agent_path_ = folder_ / "TolmAgent" / "TolmAgent" / "TolmAgent_Exe64.exe";
  const std::filesystem::path guard_path_ = folder_ / "TolmAgent" / "TolmGuard" / "TolmGuard.exe";
  const std::filesystem::path log_path_ = folder_ / "TolmAgent" / "log" / "agent.log";
  const EnvironmentValue journal_folder_{"TEST_GUARD_FOLDER", folder_.string()};
  const UserState state_{folder_ / "state"};
  const std::string event_name_ = EventName();
  std::unique_ptr<ChildProcess> agent_;
};

}  // namespace tolm::test
