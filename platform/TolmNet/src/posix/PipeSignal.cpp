#include "PipeSignal.h"

#include <csignal>

#include "os/Mutex.h"

namespace Tolm::Net {
namespace {

// Two contexts made at the same time would take the other's "ignore" for what was before.
os::Mutex& OneAtATime() {
  static os::Mutex& mutex = *new os::Mutex;
  return mutex;
}

}  // namespace

struct PipeSignalKept::Action {
  os::UniqueLock turn{OneAtATime()};
  struct sigaction action {};
};

PipeSignalKept::PipeSignalKept() : before_(std::make_unique<Action>()) {
  ::sigaction(SIGPIPE, nullptr, &before_->action);
}

PipeSignalKept::~PipeSignalKept() {
  ::sigaction(SIGPIPE, &before_->action, nullptr);
}

}  // namespace Tolm::Net
