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
    while (!stop.stop_requested()) {
      if (!event_->Wait(5)) continue;
      // As an agent that ends: who comes now finds no event, and the signal is for who waits already.
      event_->GiveUpName();
      event_->Set();
      return;
    }
  });
}

Agent::~Agent() {
  thread_.request_stop();
}

}  // namespace trust
