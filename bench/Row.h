#pragma once

#include <iosfwd>
#include <string>

#include "Samples.h"

namespace bench {

/// A value that was not measured, or does not apply. All measured values are positive.
inline constexpr double kNone = -1;

/// One line of the table.
struct Row {
  std::string name;  ///< unique in a run: OPERATION.SIZE[.VARIANT]
  std::string unit;
  double median = kNone;
  double p99 = kNone;
  double min = kNone;
  double max = kNone;
  double raw_median =
      kNone;  ///< of the bare stream, or of what the block or the note says it is compared with
  double raw_p99 = kNone;
  double raw_min = kNone;
  double raw_max = kNone;
  double ratio = kNone;
  std::string target;     ///< empty: none
  double missed = kNone;  ///< by which part of the target; 0: reached
  std::string note;
};

Row MakeRow(std::string name, std::string unit, const Rounds& rounds);
/// With the bare stream's figures, and the ratio to them.
Row MakeRow(std::string name, std::string unit, const Rounds& rounds, const Rounds& raw);

/// Of rounds that are one sample each: how often something was done in a second.
Row MakeRateRow(std::string name, const Rounds& rounds);

// Neither does anything with kNone as the limit.
void WantAtMost(Row& row, double value, double limit, std::string target);
void WantAtLeast(Row& row, double value, double limit, std::string target);

/// For the way from the process that measures to the one that prints.
std::ostream& operator<<(std::ostream& out, const Row& row);
std::istream& operator>>(std::istream& in, Row& row);

}  // namespace bench
