#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "Samples.h"

namespace bench {

/// What is compared takes turns, round by round, so that a machine that changes its pace changes it for all.
class Turns {
 public:
  /// Gives the samples of one round.
  using Round = std::function<std::vector<double>()>;

  /// The figures will be where the result says, until this object ends.
  const Rounds& Add(Round round);
  /// For a round that is one sample.
  const Rounds& AddSingle(std::function<double()> round);

  /// One round of each that does not count, to warm up, and then `rounds` of each.
  void Run(int rounds);

 private:
  struct Turn {
    Round round;
    Rounds rounds;
  };
  std::deque<Turn> turns_;
};

}  // namespace bench
