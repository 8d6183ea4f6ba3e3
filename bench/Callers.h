#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Channel.h"
#include "Samples.h"

namespace bench {

/// Threads that make calls side by side, each one after another. They wait in between, so that none is
/// made or ended while somebody measures.
class Callers {
 public:
  explicit Callers(std::size_t count);
  ~Callers();
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  /// Shares out `calls` among them, and gives the number of calls per second; a std::runtime_error when one
  /// of them throws.
  double PerSecond(std::size_t calls, const std::function<void()>& call);

 private:
  void Run();

  std::atomic<std::size_t> begun_{0};
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable begin_;
  std::condition_variable end_;
  const std::function<void()>* call_ = nullptr;
  std::size_t calls_ = 0;
  std::uint64_t round_ = 0;
  std::size_t working_ = 0;
  bool ends_ = false;
  std::string fault_;

  std::vector<std::thread> threads_;
};

/// Does what orders say about calls: one after another, or side by side.
class CallRunner {
 public:
  /// `call(answer)` makes a call and throws without an answer. With one caller, how long each took, in
  /// microseconds, but for the time in which the answer is destroyed; else how many were made in a second.
  template <typename Answer, typename Call>
  std::vector<double> Run(const Order& order, const Call& call) {
    if (order.callers > 1) {
      auto& callers = callers_[order.callers];
      if (callers == nullptr) callers = std::make_unique<Callers>(order.callers);
      return {callers->PerSecond(order.count, [&call] {
        Answer answer;
        call(answer);
      })};
    }
    std::vector<double> samples;
    samples.reserve(order.count);
    for (std::uint64_t i = 0; i < order.count; ++i) {
      Answer answer;
      samples.push_back(Microseconds([&] { call(answer); }));
    }
    return samples;
  }

 private:
  std::map<std::uint32_t, std::unique_ptr<Callers>> callers_;
};

}  // namespace bench
