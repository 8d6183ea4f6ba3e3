#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace tolm::agent {

/// Decides when a host is gone for good: one that was seen running and then has not been for a while. A
/// host that was never seen may run under another executable's name, an interpreter's for instance, and
/// is not missed.
class HostWatch {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  HostWatch(std::chrono::milliseconds patience, std::function<bool()> is_running);

  /// Looks once. True when the host is gone.
  bool IsGone(TimePoint now);
  bool WasSeen() const { return last_seen_.has_value(); }

 private:
  const std::chrono::milliseconds patience_;
  const std::function<bool()> is_running_;
  std::optional<TimePoint> last_seen_;
};

}  // namespace tolm::agent
