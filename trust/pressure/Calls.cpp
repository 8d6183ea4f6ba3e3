#include "pressure/Calls.h"

#include <algorithm>
#include <chrono>

#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "traffic/Time.h"

namespace trust {
namespace {

constexpr std::size_t kBody = 1024;
constexpr int kTimeOutMs = 20'000;
constexpr auto kWhenFull = std::chrono::microseconds(200);

}  // namespace

double SmallCalls::One() {
  static const std::string body(kBody, 's');
  const std::string& url = urls_[next_++ % urls_.size()];
  const auto begin = bench::Clock::now();
  Outcome outcome = host_.Call(url, body, kTimeOutMs);
  for (; !outcome.answered && outcome.code == lpc::kQueueFull; outcome = host_.Call(url, body, kTimeOutMs)) {
    ++refused_;
    Spend(kWhenFull);
  }
  if (!outcome.answered || outcome.body != body) ++failed_;
  const double took = bench::SecondsSince(begin) * 1e6;
  max_ = std::max(max_, took);
  return took;
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
