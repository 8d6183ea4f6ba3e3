#include "RestartBackoff.h"

#include <algorithm>
#include <utility>

namespace tolm::agent {

using std::chrono::milliseconds;

RestartBackoff::RestartBackoff(const Settings& settings, std::function<double()> random)
    : settings_(settings), random_(std::move(random)), delay_(settings.first) {}

milliseconds RestartBackoff::Next(milliseconds ran_for) {
  if (ran_for >= settings_.stable) delay_ = settings_.first;
  const double factor = 1 + settings_.spread * (2 * random_() - 1);
  const milliseconds varied(static_cast<milliseconds::rep>(static_cast<double>(delay_.count()) * factor));
  delay_ = std::min(delay_ * 2, settings_.longest);
  return varied;
}

}  // namespace tolm::agent
