#include "Agent.h"

#include "Stage.h"
#include "common/AgentNames.h"

namespace trust {

Agent::Agent(bool there) {
  if (!there) return;
  int error = 0;
  event_ = os::NamedEvent::Create(TolmLPCFrame::AgentEventName(AgentPath()), error);
  if (event_ == nullptr) return;
  thread_ = std::jthread([this](const std::stop_token& stop) {
    // The signal of the frame, which waits for the same one of ours then. Two stops at once signal twice.
    while (!stop.stop_requested()) {
      if (event_->Wait(5)) event_->Set();
    }
  });
}

Agent::~Agent() {
  thread_.request_stop();
}

}  // namespace trust
