#include "pressure/Calls.h"

#include <algorithm>

#include "Samples.h"

namespace trust {
namespace {

constexpr std::size_t kBody = 1024;
constexpr int kTimeOutMs = 20'000;

}  // namespace

double SmallCalls::One() {
  static const std::string body(kBody, 's');
  const Outcome outcome = host_.Call(urls_[next_++ % urls_.size()], body, kTimeOutMs);
  if (!outcome.answered || outcome.body != body) ++failed_;
  max_ = std::max(max_, outcome.microseconds);
  return outcome.microseconds;
}

void SmallCalls::Make(std::size_t count) {
  std::vector<double> block;
  for (std::size_t i = 0; i < count; ++i) block.push_back(One());
  Keep(block);
}

void SmallCalls::Keep(const std::vector<double>& block) {
  p50s_.push_back(bench::Rounds::Quantile(block, 0.5));
  p99s_.push_back(bench::Rounds::Quantile(block, 0.99));
}

double SmallCalls::P99() const {
  return bench::Rounds::Quantile(p99s_, 0.5);
}

double SmallCalls::P50() const {
  return bench::Rounds::Quantile(p50s_, 0.5);
}

}  // namespace trust
