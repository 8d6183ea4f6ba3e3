#include "os/StopSignal.h"

#include <csignal>
#include <thread>
#include <utility>

namespace os {

void OnStopSignal(std::function<void()> asked) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // Threads that start later inherit the mask, so that only the one below receives them.
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals, asked = std::move(asked)] {
    for (;;) {
      int signal = 0;
      if (::sigwait(&signals, &signal) == 0) asked();
    }
  }).detach();
}

}  // namespace os
