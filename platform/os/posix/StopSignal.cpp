#include "os/StopSignal.h"

#include <chrono>
#include <csignal>
#include <new>
#include <thread>
#include <utility>

namespace os {
namespace {

constexpr std::chrono::milliseconds kShortagePause{20};

// False when the handler has no memory for it: nobody sends a signal again.
bool IsTold(const std::function<void()>& asked) {
  try {
    asked();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

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
      if (::sigwait(&signals, &signal) != 0) continue;
      while (!IsTold(asked)) std::this_thread::sleep_for(kShortagePause);
    }
  }).detach();
}

}  // namespace os
