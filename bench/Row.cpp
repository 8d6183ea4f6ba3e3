#include "Row.h"

#include <algorithm>
#include <iomanip>
#include <istream>
#include <limits>
#include <ostream>
#include <utility>

namespace bench {

Row MakeRow(std::string name, std::string unit, const Rounds& rounds) {
  Row row;
  row.name = std::move(name);
  row.unit = std::move(unit);
  row.median = rounds.Median();
  row.p99 = rounds.P99();
  row.min = rounds.Min();
  row.max = rounds.Max();
  return row;
}

Row MakeRow(std::string name, std::string unit, const Rounds& rounds, const Rounds& raw) {
  Row row = MakeRow(std::move(name), std::move(unit), rounds);
  row.raw_median = raw.Median();
  row.raw_p99 = raw.P99();
  row.raw_min = raw.Min();
  row.raw_max = raw.Max();
  row.ratio = row.median / row.raw_median;
  return row;
}

Row MakeRateRow(std::string name, const Rounds& rounds) {
  Row row = MakeRow(std::move(name), "1/s", rounds);
  row.p99 = kNone;
  return row;
}

void WantAtMost(Row& row, double value, double limit, std::string target) {
  if (limit == kNone) return;
  row.target = std::move(target);
  row.missed = std::max(0.0, value / limit - 1);
}

void WantAtLeast(Row& row, double value, double limit, std::string target) {
  if (limit == kNone) return;
  row.target = std::move(target);
  row.missed = std::max(0.0, 1 - value / limit);
}

std::ostream& operator<<(std::ostream& out, const Row& row) {
  out << std::setprecision(std::numeric_limits<double>::max_digits10);
  out << std::quoted(row.name) << ' ' << std::quoted(row.unit) << ' ';
  for (const double value : {row.median, row.p99, row.min, row.max, row.raw_median, row.raw_p99, row.raw_min,
                             row.raw_max, row.ratio, row.missed}) {
    out << value << ' ';
  }
  return out << std::quoted(row.target) << ' ' << std::quoted(row.note) << '\n';
}

std::istream& operator>>(std::istream& in, Row& row) {
  in >> std::quoted(row.name) >> std::quoted(row.unit);
  for (double* const value : {&row.median, &row.p99, &row.min, &row.max, &row.raw_median, &row.raw_p99,
                              &row.raw_min, &row.raw_max, &row.ratio, &row.missed}) {
    in >> *value;
  }
  return in >> std::quoted(row.target) >> std::quoted(row.note);
}

}  // namespace bench
