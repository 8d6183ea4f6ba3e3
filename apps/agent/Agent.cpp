#include "Agent.h"

#include <algorithm>
#include <exception>
#include <future>
#include <random>
#include <thread>
#include <utility>

#include "AgentLog.h"
#include "OutputLines.h"
#include "os/NamedEvent.h"
#include "os/ThreadName.h"

namespace tolm::agent {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShortagePause{100};

std::function<double()> Random() {
  return
      [engine = std::minstd_rand(std::random_device()()),
       zero_to_one = std::uniform_real_distribution<double>(0, 1)]() mutable { return zero_to_one(engine); };
}

long long Count(std::chrono::steady_clock::duration time) {
  return std::chrono::duration_cast<milliseconds>(time).count();
}

/// Waits for the event on a thread of its own, from the beginning to the end: whoever sets it and waits for
/// the answer must not take its own signal for that. The event's maker comes first, but not for long, and not
/// on every system.
class EventWaiter {
 public:
  EventWaiter(os::NamedEvent& event, std::shared_ptr<Inbox> inbox)
      : event_(event), thread_([this, &event, inbox = std::move(inbox)] {
          os::SetThreadName("agent-event");
          begun_.set_value();
          if (event.Wait(-1)) {
            inbox->AskToEnd(true);
          } else {
            AGENT_LOG_ERROR("The event cannot be waited for; a signal ends the agent");
          }
        }) {
    begun_.get_future().wait();
  }

  /// One signal serves both: it is the answer when the event was set, and otherwise ends the wait above,
  /// which began before any that the frame could begin now.
  ~EventWaiter() {
    event_.Set();
    thread_.join();
  }
  EventWaiter(const EventWaiter&) = delete;
  EventWaiter& operator=(const EventWaiter&) = delete;

 private:
  os::NamedEvent& event_;
  std::promise<void> begun_;  // no latch: where the system has no futex, GCC 12 may lose its wake-up
  std::thread thread_;
};

}  // namespace

Agent::Agent(const Options& options, const Layout& layout, std::shared_ptr<Inbox> inbox)
    : options_(options),
      layout_(layout),
      host_executable_(ResolvedExecutable(options.host_path)),
      inbox_(std::move(inbox)),
      host_(options.times.host_gone, [this] { return os::IsExecutableRunning(host_executable_); }),
      backoff_({.first = options.times.restart,
                .longest = options.times.longest_restart,
                .stable = options.times.stable},
               Random()),
      next_look_(Clock::now()),
      next_start_(next_look_) {}

bool Agent::Run(std::unique_ptr<os::ProcessLock> only_one) {
  int error = 0;
  const auto event = os::NamedEvent::Create(layout_.event_name, error);
  if (!event) {
    AGENT_LOG_ERROR("The event %s cannot be made, error %d", layout_.event_name.c_str(), error);
    return false;
  }
  AGENT_LOG_INFO("The agent begins; event %s, host %s", layout_.event_name.c_str(),
                 host_executable_.empty() ? "(not watched)" : host_executable_.c_str());
  const EventWaiter waiter(*event, inbox_);
  WorkUntilEnd();
  // A frame that starts from now on finds no event, and starts an agent that waits for this one's end.
  event->GiveUpName();
  StopGuard();
  AGENT_LOG_INFO("The agent ends");
  // Whoever waits for the answer kills what is left of the agent then, so nothing may be left of it that
  // only it can remove.
  only_one.reset();
  return true;
}

void Agent::WorkUntilEnd() {
  for (;;) {
    try {
      if (!guard_ && Clock::now() >= next_start_) StartGuard();
    } catch (const std::exception& error) {
      AGENT_LOG_ERROR("The guard cannot be started for now: %s", error.what());
      next_start_ = Clock::now() + kShortagePause;
    }
    if (IsHostGone()) {
      AGENT_LOG_WARNING("The host %s has not been running for %lld ms", host_executable_.c_str(),
                        Count(options_.times.host_gone));
      return;
    }
    os::ProcessEnd guard_end;
    switch (inbox_->Wait(NextStep(), guard_end)) {
      case Inbox::News::kAskedToEnd:
        AGENT_LOG_INFO("Asked to end by %s", inbox_->WasAskedByEvent() ? "the event" : "a signal");
        return;
      case Inbox::News::kGuardEnded:
        TakeGuardEnd(guard_end);
        break;
      case Inbox::News::kNone:
        break;  // it is time for the next step
    }
  }
}

bool Agent::IsHostGone() {
  const auto now = Clock::now();
  if (host_executable_.empty() || now < next_look_) return false;
  next_look_ = now + options_.times.host_interval;
  const bool was_seen = host_.WasSeen();
  bool is_gone = false;
  try {
    is_gone = host_.IsGone(now);
  } catch (const std::exception& error) {
    AGENT_LOG_WARNING("The host cannot be looked for: %s", error.what());
    return false;
  }
  if (!was_seen && host_.WasSeen()) AGENT_LOG_INFO("The host %s runs", host_executable_.c_str());
  return is_gone;
}

Agent::Clock::time_point Agent::NextStep() const {
  constexpr std::chrono::hours kNothingToDo{24};
  auto next = Clock::now() + kNothingToDo;
  if (!guard_) next = std::min(next, next_start_);
  if (!host_executable_.empty()) next = std::min(next, next_look_);
  return next;
}

void Agent::StartGuard() {
  // What a guard that was killed had started, and what those had.
  os::KillStrayDescendants();
  auto lines = std::make_shared<OutputLines>(
      [](const std::string& line) { AGENT_LOG_INFO("guard: %s", line.c_str()); });
  std::string fault;
  started_ = Clock::now();
  guard_ = os::ChildProcess::Start(
      {.program = layout_.guard_path,
       .arguments = {"--role", options_.role, "--host", options_.host_path},
       .on_output = [lines](std::string_view piece) { lines->Add(piece); },
       .on_end = [inbox = inbox_](const os::ProcessEnd& end) { inbox->GuardEnded(end); }},
      fault);
  if (guard_) {
    AGENT_LOG_INFO("The guard runs, process %ld", guard_->id());
    last_fault_.clear();
    return;
  }
  const milliseconds delay = backoff_.Next(milliseconds(0));
  next_start_ = Clock::now() + delay;
  if (fault == last_fault_) return;  // it was told, and is tried again for as long as it takes
  last_fault_ = fault;
  AGENT_LOG_ERROR("The guard cannot be started, and is tried again: %s", fault.c_str());
}

void Agent::TakeGuardEnd(const os::ProcessEnd& end) {
  const auto ran_for = std::chrono::duration_cast<milliseconds>(Clock::now() - started_);
  guard_.reset();
  const milliseconds delay = backoff_.Next(ran_for);
  next_start_ = Clock::now() + delay;
  AGENT_LOG_WARNING("The guard has ended after %lld ms (%s), and is started again in %lld ms",
                    static_cast<long long>(ran_for.count()), Describe(end).c_str(),
                    static_cast<long long>(delay.count()));
}

void Agent::StopGuard() {
  if (guard_) {
    guard_->AskToEnd();
    if (guard_->WaitEnd(options_.times.grace)) {
      AGENT_LOG_INFO("The guard has ended");
    } else {
      AGENT_LOG_WARNING("The guard did not end within %lld ms, and is killed", Count(options_.times.grace));
    }
    guard_->KillTree();
    guard_.reset();
  }
  os::KillStrayDescendants();
}

}  // namespace tolm::agent
