#include "RestartPolicy.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

namespace guard {

RestartPolicy::RestartPolicy(const RestartRules& rules, std::function<double()> random)
    : rules_(rules), random_(std::move(random)) {}

RestartPolicy::Decision RestartPolicy::OnEnd(TimePoint now, Milliseconds ran_for, bool crashed) {
  if (ran_for >= rules_.stable_after) Reset();
  const bool wanted =
      rules_.when == RestartRules::When::kAlways || (rules_.when == RestartRules::When::kOnCrash && crashed);
  if (!wanted) return {Decision::Kind::kStay, Milliseconds(0)};
  while (!restarts_.empty() && now - restarts_.front() >= rules_.within) restarts_.pop_front();
  if (rules_.give_up_after > 0) {
    if (restarts_.size() >= static_cast<std::size_t>(rules_.give_up_after)) {
      return {Decision::Kind::kGiveUp, Milliseconds(0)};
    }
    restarts_.push_back(now);
  }
  return {Decision::Kind::kRestart, NextDelay()};
}

void RestartPolicy::Reset() {
  delay_ms_ = 0;
  restarts_.clear();
}

Milliseconds RestartPolicy::NextDelay() {
  const auto first = static_cast<double>(rules_.first_delay.count());
  const auto longest = static_cast<double>(rules_.max_delay.count());
  // Kept below the cap, so that a long row of restarts does not run into infinity.
  const double delay = std::min(delay_ms_ == 0 ? first : delay_ms_ * rules_.factor, longest);
  delay_ms_ = delay;
  const double jittered = delay * (1.0 + rules_.jitter * (2.0 * random_() - 1.0));
  return Milliseconds(static_cast<std::int64_t>(std::llround(jittered)));
}

}  // namespace guard
