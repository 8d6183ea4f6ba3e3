#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "traffic/Host.h"

namespace trust {

/// Small calls made one after another, in blocks, and what became of them.
class SmallCalls {
 public:
  /// Takes turns among the urls.
  SmallCalls(const Host& host, std::vector<std::string> urls) : host_(host), urls_(std::move(urls)) {}

  /// One block more.
  void Make(std::size_t count);
  /// As long as `goes_on` holds, but at least one call.
  template <typename Predicate>
  void MakeWhile(Predicate goes_on) {
    std::vector<double> block;
    do {
      block.push_back(One());
    } while (goes_on());
    Keep(block);
  }

  /// How often one was refused since a queue was full; it is made again a moment later, and has taken that
  /// longer.
  std::uint64_t refused() const { return refused_; }
  std::uint64_t failed() const { return failed_; }
  /// Of the blocks' 99th percentiles, or medians, the median, in microseconds: a block in which the machine
  /// was busy with something else is one of many.
  double P99() const;
  double P50() const;
  double Max() const { return max_; }

 private:
  double One();
  void Keep(const std::vector<double>& block);

  const Host& host_;
  const std::vector<std::string> urls_;
  std::size_t next_ = 0;
  std::uint64_t refused_ = 0;
  std::uint64_t failed_ = 0;
  double max_ = 0;
  std::vector<double> p50s_;
  std::vector<double> p99s_;
};

}  // namespace trust
