#pragma once

#include <memory>
#include <thread>

#include "os/NamedEvent.h"

namespace trust {

/// Holds the agent's event, and answers it, as an agent of the stage's host does.
class Agent {
 public:
  /// Nobody when not `there`: the frame tries in vain to start one then.
  explicit Agent(bool there);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

 private:
  std::unique_ptr<os::NamedEvent> event_;
  std::jthread thread_;
};

}  // namespace trust
