#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Samples.h"

namespace trust {

/// Lets time pass: the span of a measurement, or the pace at which something is done.
inline void Spend(std::chrono::nanoseconds time) {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable nobody;
  nobody.wait_for(lock, time, [] { return false; });
}

/// Waits until `predicate` holds; false when it does not within `seconds`.
template <typename Predicate>
bool Await(double seconds, Predicate predicate) {
  const auto begin = bench::Clock::now();
  while (!predicate()) {
    if (bench::SecondsSince(begin) > seconds) return predicate();
    Spend(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace trust
