#pragma once

#include <atomic>

#include "support/Wait.h"

namespace tolm::test {

/// Holds threads up until it is opened. One that was forgotten lets them go after a while, so that the
/// test fails instead of hanging.
class Gate {
 public:
  ~Gate() {
    Open();
    WaitFor([this] { return waiting_ == 0; });
  }
  void Open() { open_ = true; }
  void Wait() {
    ++waiting_;
    WaitFor([this] { return open_.load(); });
    --waiting_;
  }
  int Waiting() const { return waiting_; }

 private:
  std::atomic<bool> open_{false};
  std::atomic<int> waiting_{0};
};

}  // namespace tolm::test
