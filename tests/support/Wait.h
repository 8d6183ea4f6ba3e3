#pragma once

#include <chrono>

#include "support/System.h"

namespace tolm::test {

/// Polls `predicate` until it holds or `limit` has passed; whether it holds. The limit is only how long
/// a failing test takes: it is long, so that a loaded machine makes no test fail.
template <typename Predicate>
bool WaitFor(Predicate&& predicate, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    Nap();
  }
  return true;
}

}  // namespace tolm::test
