#include "soak/Slope.h"

namespace trust {

std::vector<Series::Sample> Series::Later() const {
  if (samples_.empty()) return {};
  const double begin = samples_.front().seconds;
  const double from = begin + (samples_.back().seconds - begin) / 3;
  std::vector<Sample> later;
  for (const Sample& sample : samples_) {
    if (sample.seconds >= from) later.push_back(sample);
  }
  return later;
}

double Series::PerHour() const {
  const std::vector<Sample> later = Later();
  if (later.size() < 3) return 0;
  const auto count = static_cast<double>(later.size());
  double mean_seconds = 0;
  double mean_value = 0;
  for (const Sample& sample : later) {
    mean_seconds += sample.seconds / count;
    mean_value += sample.value / count;
  }
  double products = 0;
  double squares = 0;
  for (const Sample& sample : later) {
    products += (sample.seconds - mean_seconds) * (sample.value - mean_value);
    squares += (sample.seconds - mean_seconds) * (sample.seconds - mean_seconds);
  }
  return squares > 0 ? products / squares * 3600 : 0;
}

}  // namespace trust
