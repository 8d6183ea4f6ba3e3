#include "PipeSignal.h"

#include <csignal>
#include <mutex>

namespace Tolm::Net {
namespace {

// Two contexts made at the same time would take the other's "ignore" for what was before.
std::mutex& OneAtATime() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

}  // namespace

struct PipeSignalKept::Action {
  std::unique_lock<std::mutex> turn{OneAtATime()};
  struct sigaction action {};
};

PipeSignalKept::PipeSignalKept() : before_(std::make_unique<Action>()) {
  ::sigaction(SIGPIPE, nullptr, &before_->action);
}

PipeSignalKept::~PipeSignalKept() {
  ::sigaction(SIGPIPE, &before_->action, nullptr);
}

}  // namespace Tolm::Net
