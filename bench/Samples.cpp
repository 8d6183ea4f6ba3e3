#include "Samples.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

namespace bench {

void Rounds::Add(const std::vector<double>& round) {
  all_.insert(all_.end(), round.begin(), round.end());
  medians_.push_back(Quantile(round, 0.5));
}

double Rounds::Spread() const {
  const auto [low, high] = std::minmax_element(medians_.begin(), medians_.end());
  return (*high - *low) / Quantile(medians_, 0.5);
}

double Rounds::Quantile(std::vector<double> samples, double part) {
  if (samples.empty()) throw std::runtime_error("a round without samples");
  const auto index = static_cast<std::size_t>(std::ceil(static_cast<double>(samples.size() - 1) * part));
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(index);
  std::nth_element(samples.begin(), at, samples.end());
  return *at;
}

}  // namespace bench
