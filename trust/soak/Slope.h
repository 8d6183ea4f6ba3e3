#pragma once

#include <cstddef>
#include <vector>

namespace trust {

/// A figure sampled once in a while.
class Series {
 public:
  void Add(double seconds, double value) { samples_.push_back({seconds, value}); }

  /// How much it grows in an hour, by least squares over the last two thirds of the time: the first third is
  /// for what is made once and kept. 0 with fewer than three samples.
  double PerHour() const;
  double Last() const { return samples_.empty() ? 0 : samples_.back().value; }

 private:
  struct Sample {
    double seconds;
    double value;
  };
  std::vector<Sample> Later() const;

  std::vector<Sample> samples_;
};

}  // namespace trust
