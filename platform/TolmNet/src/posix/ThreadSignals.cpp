#include "ThreadSignals.h"

#include <csignal>

namespace Tolm::Net {

struct SignalsBlocked::Mask {
  sigset_t set;
};

SignalsBlocked::SignalsBlocked() : before_(std::make_unique<Mask>()) {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before_->set);
}

SignalsBlocked::~SignalsBlocked() {
  ::pthread_sigmask(SIG_SETMASK, &before_->set, nullptr);
}

}  // namespace Tolm::Net
