// The agent: keeps the guard running. Started by the frame; see --help.

#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Agent.h"
#include "AgentLog.h"
#include "Inbox.h"
#include "Layout.h"
#include "Options.h"
#include "os/ChildProcess.h"
#include "os/NamedEvent.h"
#include "os/StopSignal.h"
#include "os/UserPlaces.h"

namespace {

constexpr int kEnded = 0;
constexpr int kCannotBegin = 1;
constexpr int kNotUnderstood = 2;

/// An agent that ends has ended after so long, whatever its guard does.
constexpr std::chrono::seconds kLongestEnd{10};
constexpr std::chrono::milliseconds kLookAgain{20};

/// The right to be the one agent; nothing when another one works. An agent that ends has no event any more
/// and is waited for: the frame that started this one found no event, and counts on it.
std::unique_ptr<os::ProcessLock> TakeTurn(const std::string& event_name, std::string& fault) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestEnd;
  for (;;) {
    auto only_one = os::ProcessLock::TryTake(event_name, fault);
    if (only_one || !fault.empty() || std::chrono::steady_clock::now() >= deadline) return only_one;
    // The lock comes before the event: an agent that has just begun is looked for twice.
    std::this_thread::sleep_for(kLookAgain);
    if (os::NamedEvent::Open(event_name)) return nullptr;
  }
}

int RunAgent(const tolm::agent::Options& options) {
  // Both before anything else makes threads or children.
  const auto inbox = std::make_shared<tolm::agent::Inbox>();
  os::OnStopSignal([inbox] { inbox->AskToEnd(false); });
  os::AdoptOrphans();

  const tolm::agent::Layout layout = tolm::agent::FindLayout(options.agent_path);
  std::string fault;
  auto only_one = TakeTurn(layout.event_name, fault);
  if (!only_one && !fault.empty()) {
    std::cerr << "cannot find out whether an agent is running: " << fault << std::endl;
    return kCannotBegin;
  }
  if (!only_one) {
    std::cerr << "already running: " << layout.event_name << std::endl;
    return kEnded;
  }
  // By now no other agent writes the same file.
  tolm::agent::OpenLog(layout);
  return tolm::agent::Agent(options, layout, inbox).Run(std::move(only_one)) ? kEnded : kCannotBegin;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    tolm::agent::Options options;
    std::string fault;
    switch (tolm::agent::ReadCommandLine(os::OwnArguments(argc, argv), options, fault)) {
      case tolm::agent::Order::kShowHelp:
        std::cout << tolm::agent::HelpText();
        return kEnded;
      case tolm::agent::Order::kShowVersion:
        std::cout << "TolmAgent " TOLM_AGENT_VERSION << std::endl;
        return kEnded;
      case tolm::agent::Order::kRefuse:
        std::cerr << fault << "\n" << tolm::agent::UsageLine() << "\ntry --help" << std::endl;
        return kNotUnderstood;
      case tolm::agent::Order::kRun:
        break;
    }
    return RunAgent(options);
  } catch (const std::exception& error) {
    AGENT_LOG_ERROR("The agent cannot go on: %s", error.what());
    return kCannotBegin;
  }
}
