#pragma once

#include <chrono>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// How long `operation` takes, in microseconds.
template <typename Operation>
double Microseconds(Operation&& operation) {
  const auto begin = Clock::now();
  operation();
  return SecondsSince(begin) * 1e6;
}

/// The same measurement made in several rounds, which tells a slow machine from a slow program.
class Rounds {
 public:
  void Add(const std::vector<double>& round);
  void Add(double only_sample) { Add(std::vector<double>{only_sample}); }

  /// Of all samples of all rounds.
  double Median() const { return Quantile(all_, 0.5); }
  double P99() const { return Quantile(all_, 0.99); }
  /// Of the rounds' medians, or of the samples where each round is one.
  double Min() const;
  double Max() const;

  static double Quantile(std::vector<double> samples, double part);

 private:
  std::vector<double> all_;
  std::vector<double> medians_;
};

/// What is compared takes turns, so that a machine that changes its pace changes it for both.
template <typename A, typename B>
void Alternate(int rounds, A&& a, B&& b) {
  for (int round = 0; round < rounds; ++round) {
    a();
    b();
  }
}

}  // namespace bench
