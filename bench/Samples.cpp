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

double Rounds::Min() const {
  return *std::min_element(medians_.begin(), medians_.end());
}

double Rounds::Max() const {
  return *std::max_element(medians_.begin(), medians_.end());
}

double Rounds::Quantile(std::vector<double> samples, double part) {
  if (samples.empty()) throw std::runtime_error("a round without samples");
  const auto index = static_cast<std::size_t>(std::ceil(static_cast<double>(samples.size() - 1) * part));
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(index);
  std::nth_element(samples.begin(), at, samples.end());
  return *at;
}

}  // namespace bench
