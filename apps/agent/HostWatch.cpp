#include "HostWatch.h"

#include <utility>

namespace tolm::agent {

HostWatch::HostWatch(std::chrono::milliseconds patience, std::function<bool()> is_running)
    : patience_(patience), is_running_(std::move(is_running)) {}

bool HostWatch::IsGone(TimePoint now) {
  if (is_running_()) last_seen_ = now;
  return last_seen_ && now - *last_seen_ >= patience_;
}

}  // namespace tolm::agent
