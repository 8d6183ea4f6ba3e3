#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "os/ChildProcess.h"
#include "supervisor/ProcessWatch.h"
#include "support/System.h"
#include "support/Wait.h"

namespace tolm::test {

/// A child that plays a role, with all that its handlers were told.
class Actor {
 public:
  /// How long it may take with what is expected of it.
  static constexpr std::chrono::seconds kPatience{40};

  explicit Actor(std::vector<std::string> role) {
    request_.program = ThisProgram().string();
    request_.arguments = std::move(role);
    request_.arguments.insert(request_.arguments.begin(), "--role");
  }
  ~Actor() { process_.reset(); }
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  os::ProcessRequest& request() { return request_; }

  /// False when it was not started; why() then tells.
  bool Start() {
    request_.on_output = [this](std::string_view piece) {
      if (ends_of_output_ > 0) ++pieces_behind_the_end_;
      if (piece.empty()) ++ends_of_output_;
      printed_.Add(piece);
    };
    request_.on_end = [this](const os::ProcessEnd& end) {
      if (++ends_ == 1) end_.set_value(end);
    };
    process_ = os::ChildProcess::Start(request_, why_);
    return process_ != nullptr;
  }

  os::ChildProcess& process() { return *process_; }
  const std::string& why() const { return why_; }
  const Printed& printed() const { return printed_; }
  int ends() const { return ends_; }
  int ends_of_output() const { return ends_of_output_; }
  int pieces_behind_the_end() const { return pieces_behind_the_end_; }
  ProcessId id() const { return process_->id(); }
  void Destroy() { process_.reset(); }

  std::optional<os::ProcessEnd> WaitEnd() {
    if (end_future_.wait_for(kPatience) != std::future_status::ready) return std::nullopt;
    return end_future_.get();
  }
  bool WaitEndOfOutput() {
    return WaitFor([this] { return ends_of_output_ == 1; }, kPatience);
  }

 private:
  os::ProcessRequest request_;
  Printed printed_;
  std::string why_;
  std::atomic<int> ends_{0};
  std::atomic<int> ends_of_output_{0};
  std::atomic<int> pieces_behind_the_end_{0};
  std::promise<os::ProcessEnd> end_;
  std::future<os::ProcessEnd> end_future_{end_.get_future()};
  std::unique_ptr<os::ChildProcess> process_;
};

/// Why `program` does not start; "it started" when it does.
inline std::string WhyNot(const std::string& program) {
  std::string why = "it started";
  const auto child = os::ChildProcess::Start({.program = program}, why);
  return why;
}

/// The processes of a child that plays "family".
class Family {
 public:
  explicit Family(const Printed& printed) {
    for (const char* member : {"ready", "child", "leader", "grandchild", "daemon"}) {
      members_.push_back(printed.WaitForNumberAfter(member));
    }
  }
  bool IsComplete() const {
    for (const ProcessId id : members_) {
      if (id <= 0 || IsGone(id)) return false;
    }
    return true;
  }
  bool WaitUntilNoneIsLeft() const {
    for (const ProcessId id : members_) {
      if (!WaitUntilGone(id)) return false;
    }
    return true;
  }
  std::size_t CountLeft() const {
    std::size_t left = 0;
    for (const ProcessId id : members_) left += IsGone(id) ? 0 : 1;
    return left;
  }

 private:
  std::vector<ProcessId> members_;
};

}  // namespace tolm::test
