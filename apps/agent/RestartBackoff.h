#pragma once

#include <chrono>
#include <functional>

namespace tolm::agent {

/// How long to wait before a process is started again: longer after each quick end, and not at the same
/// moment as everybody else on the machine.
class RestartBackoff {
 public:
  struct Settings {
    std::chrono::milliseconds first{100};
    std::chrono::milliseconds longest{5000};
    double spread = 0.2;                      ///< each delay varies by this part of it, up and down
    std::chrono::milliseconds stable{30000};  ///< who ran as long as this begins with `first` again
  };

  /// `random` gives numbers from 0 to 1.
  RestartBackoff(const Settings& settings, std::function<double()> random);

  /// The delay after an end that came `ran_for` after the start.
  std::chrono::milliseconds Next(std::chrono::milliseconds ran_for);

 private:
  const Settings settings_;
  const std::function<double()> random_;
  std::chrono::milliseconds delay_;  // the next one, before it is varied
};

}  // namespace tolm::agent
