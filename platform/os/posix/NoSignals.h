#pragma once

#include <pthread.h>

#include <csignal>

namespace os {

/// While it lives, its thread is interrupted by no signal, nor are threads that it makes: signals are for
/// those that the program means them for.
class NoSignals {
 public:
  NoSignals() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;

 private:
  sigset_t before_;
};

}  // namespace os
