#include "PluginSupervisor.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"
#include "os/HiddenProcess.h"
#include "os/UserPlaces.h"

namespace guard {
namespace {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelWarning;

constexpr char kTag[] = "TolmGuard";
/// A bad end of a run that was shorter is explained in the guard's log.
constexpr Milliseconds kFirstSeconds{5000};
/// Output that was on its way when the process ended arrives within that time, or never.
constexpr Milliseconds kOutputLag{25};
/// A restart that waits for the frame looks again after that time.
constexpr Milliseconds kLookAgain{5};

std::string Seconds(Milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(time.count()) / 1000.0);
  return text;
}

}  // namespace

std::shared_ptr<PluginSupervisor> PluginSupervisor::Make(std::string id, std::filesystem::path log_file,
                                                         const PluginSurroundings& surroundings) {
  return std::shared_ptr<PluginSupervisor>(
      new PluginSupervisor(std::move(id), std::move(log_file), surroundings));
}

PluginSupervisor::PluginSupervisor(std::string id, std::filesystem::path log_file,
                                   const PluginSurroundings& surroundings)
    : id_(std::move(id)),
      surroundings_(surroundings),
      output_(std::make_shared<OutputFile>(std::move(log_file), LogRules())) {}

PluginSupervisor::~PluginSupervisor() {
  CancelTimer();
  Diagnose();
}

void PluginSupervisor::Start(Manifest manifest, std::vector<std::string> extra_arguments, bool at_once) {
  is_protected_ = true;
  const bool same = extra_arguments == extra_arguments_;
  if (state_ == State::kRunning && same) return;
  if (state_ == State::kWaiting && same && !at_once) return;
  manifest_ = std::move(manifest);
  extra_arguments_ = std::move(extra_arguments);
  policy_.emplace(manifest_.restart, surroundings_.random);
  output_->SetRules(manifest_.log);
  start_failure_.clear();
  switch (state_) {
    case State::kRunning:
      TOLM_LOG(kLogLevelInfo, kTag, "plugin %s: restarted with another command line", id_.c_str());
      Stop(StopWay::kAsk);
      start_again_ = true;
      break;
    case State::kStopping:
      start_again_ = true;
      break;
    case State::kWaiting:
      CancelTimer();
      [[fallthrough]];
    case State::kIdle:
      StartWhenSettled();
      break;
  }
}

void PluginSupervisor::Stop(StopWay way, std::optional<Milliseconds> longest_grace) {
  start_again_ = false;
  const Milliseconds grace = std::min(manifest_.stop_grace, longest_grace.value_or(Milliseconds::max()));
  switch (state_) {
    case State::kIdle:
      break;
    case State::kWaiting:
      CancelTimer();
      state_ = State::kIdle;
      output_->Note("not restarted: it is to be stopped");
      break;
    case State::kRunning:
      state_ = State::kStopping;
      grace_ = grace;
      Climb(way == StopWay::kAsk ? Rung::kAsked : Rung::kLetItEnd);
      break;
    case State::kStopping:
      grace_ = std::min(grace_, grace);
      if (rung_ == Rung::kLetItEnd && way == StopWay::kAsk) {
        Climb(Rung::kAsked);
      } else if (rung_ != Rung::kKilled) {
        const auto left = std::chrono::ceil<Milliseconds>(grace_over_ - surroundings_.scheduler.Now());
        SetTimer(std::min(left, grace_), &PluginSupervisor::OnGraceOver);
      }
      break;
  }
}

void PluginSupervisor::SetProtected(bool is_protected) {
  is_protected_ = is_protected;
  if (is_protected || state_ != State::kWaiting) return;
  CancelTimer();
  state_ = State::kIdle;
  output_->Note("not restarted: it is not protected any more");
}

// A successor that has initialised before the frame takes note of the end would count as ended from then on.
void PluginSupervisor::StartWhenSettled() {
  if (surroundings_.is_end_settled(id_)) {
    StartProcess();
  } else {
    state_ = State::kWaiting;
    SetTimer(kLookAgain, &PluginSupervisor::StartWhenSettled);
  }
}

void PluginSupervisor::StartProcess() {
  Diagnose();
  const std::uint64_t run = ++run_;
  os::ProcessRequest request;
  request.program = os::ProgramFile(manifest_.program.string());
  request.arguments = manifest_.arguments;
  request.arguments.insert(request.arguments.end(), extra_arguments_.begin(), extra_arguments_.end());
  request.working_folder = manifest_.working_folder.string();
  request.environment = manifest_.environment;
  // These run on threads of the process's own.
  request.on_output = [output = output_](std::string_view bytes) {
    try {
      output->Write(bytes);
    } catch (const std::exception& error) {
      TOLM_LOG(kLogLevelError, kTag, "output of a plugin is lost: %s", error.what());
    }
  };
  request.on_end = [weak = weak_from_this(), &scheduler = surroundings_.scheduler,
                    run](const os::ProcessEnd& end) {
    scheduler.Post([weak, run, end] {
      if (const auto self = weak.lock()) self->OnEnded(run, end);
    });
  };

  std::vector<std::string> words = request.arguments;
  words.insert(words.begin(), request.program);
  const std::string command_line = os::JoinCommandLine(words);
  output_->ForgetLastLines();
  std::string why;
  started_at_ = surroundings_.scheduler.Now();
  process_ = surroundings_.start(std::move(request), why);
  if (process_) {
    state_ = State::kRunning;
    start_failure_.clear();
    output_->Note("started, process " + std::to_string(process_->id()) + ": " + command_line);
    TOLM_LOG(kLogLevelInfo, kTag, "plugin %s: started, process %ld", id_.c_str(), process_->id());
    return;
  }
  output_->Note("cannot be started: " + why);
  if (why != start_failure_) {
    TOLM_LOG(kLogLevelError, kTag, "plugin %s: cannot be started: %s", id_.c_str(), why.c_str());
    start_failure_ = why;
  }
  FollowEnd(Milliseconds(0), true);
}

void PluginSupervisor::OnEnded(std::uint64_t run, const os::ProcessEnd& end) {
  if (run != run_ || !process_) return;
  // What it started in turn must not get into the way of its successor.
  process_->KillTree();
  process_.reset();
  CancelTimer();

  const auto ran_for = std::chrono::duration_cast<Milliseconds>(surroundings_.scheduler.Now() - started_at_);
  const bool crashed = end.exit_status != 0 || end.signal != 0;
  const std::string how = os::Describe(end) + " after " + Seconds(ran_for);
  output_->Note("ended: " + how);
  const bool was_stopped = state_ == State::kStopping;
  TOLM_LOG(crashed && !was_stopped ? kLogLevelWarning : kLogLevelInfo, kTag, "plugin %s: ended, %s",
           id_.c_str(), how.c_str());

  if (was_stopped) {
    const bool again = std::exchange(start_again_, false);
    state_ = again ? State::kWaiting : State::kIdle;
    surroundings_.on_end(id_);
    if (again) StartWhenSettled();
    return;
  }
  if (crashed && ran_for < kFirstSeconds) {
    diagnosis_ = os::ProgramFile(manifest_.program.string()) + ", " + how;
    diagnosis_timer_ = surroundings_.scheduler.After(kOutputLag, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->Diagnose();
    });
  }
  FollowEnd(ran_for, crashed);
  surroundings_.on_end(id_);
}

void PluginSupervisor::FollowEnd(Milliseconds ran_for, bool crashed) {
  state_ = State::kIdle;
  if (!is_protected_) {
    output_->Note("not restarted: it is not protected any more");
    return;
  }
  const RestartPolicy::Decision decision = policy_->OnEnd(surroundings_.scheduler.Now(), ran_for, crashed);
  switch (decision.kind) {
    case RestartPolicy::Decision::Kind::kStay:
      output_->Note("not restarted, as its manifest says");
      break;
    case RestartPolicy::Decision::Kind::kGiveUp: {
      const std::string why = "given up: ended again after " + std::to_string(policy_->recent_restarts()) +
                              " restarts within " + Seconds(manifest_.restart.within);
      output_->Note(why);
      TOLM_LOG(kLogLevelError, kTag, "plugin %s: %s", id_.c_str(), why.c_str());
      break;
    }
    case RestartPolicy::Decision::Kind::kRestart:
      state_ = State::kWaiting;
      output_->Note("restarted in " + Seconds(decision.delay));
      SetTimer(decision.delay, &PluginSupervisor::StartWhenSettled);
      break;
  }
}

void PluginSupervisor::Climb(Rung rung) {
  rung_ = rung;
  CancelTimer();
  switch (rung) {
    case Rung::kLetItEnd:
      output_->Note("to end by itself within " + Seconds(grace_));
      break;
    case Rung::kAsked:
      output_->Note("asked to end within " + Seconds(grace_));
      process_->AskToEnd();
      break;
    case Rung::kKilled:
      output_->Note("killed, with everything that it started");
      TOLM_LOG(kLogLevelWarning, kTag, "plugin %s: killed, since it did not end in time", id_.c_str());
      process_->KillTree();
      return;
  }
  grace_over_ = surroundings_.scheduler.Now() + grace_;
  SetTimer(grace_, &PluginSupervisor::OnGraceOver);
}

void PluginSupervisor::OnGraceOver() {
  Climb(rung_ == Rung::kLetItEnd ? Rung::kAsked : Rung::kKilled);
}

void PluginSupervisor::SetTimer(Milliseconds delay, void (PluginSupervisor::*then)()) {
  CancelTimer();
  timer_ = surroundings_.scheduler.After(delay, [weak = weak_from_this(), then] {
    const auto self = weak.lock();
    if (!self) return;
    self->timer_ = 0;
    ((*self).*then)();
  });
}

void PluginSupervisor::CancelTimer() {
  surroundings_.scheduler.Cancel(std::exchange(timer_, 0));
}

void PluginSupervisor::Diagnose() noexcept {
  surroundings_.scheduler.Cancel(std::exchange(diagnosis_timer_, 0));
  if (diagnosis_.empty()) return;
  std::string lines;
  try {
    for (const std::string& line : output_->LastLines()) lines += "\n    " + line;
    if (lines.empty()) lines = " none";
  } catch (const std::exception&) {
    lines = " (no memory)";
  }
  TOLM_LOG(kLogLevelError, kTag, "plugin %s: ended soon after its start: %s; its last lines:%s", id_.c_str(),
           diagnosis_.c_str(), lines.c_str());
  diagnosis_.clear();
}

}  // namespace guard
