// How often the machine takes the core away from a program that does nothing but read the clock, and for how
// long. What takes a core for so long, at such moments, is not the frame's: a call is longer than a bare
// round trip, and so one of a hundred calls meets it sooner than one of a hundred round trips.

#include <chrono>
#include <vector>

#include "Measurements.h"
#include "Samples.h"

namespace bench {
namespace {

constexpr auto kRound = std::chrono::milliseconds(200);
// Reading the clock takes a hundredth of this.
constexpr double kGapMicroseconds = 3;

std::vector<double> Gaps() {
  std::vector<double> gaps;
  const auto begin = Clock::now();
  for (auto last = begin; last - begin < kRound;) {
    const auto now = Clock::now();
    const double gap = std::chrono::duration<double, std::micro>(now - last).count();
    if (gap > kGapMicroseconds) gaps.push_back(gap);
    last = now;
  }
  return gaps;
}

}  // namespace

std::vector<Row> MeasureMachine(const Settings& settings) {
  constexpr double kRoundSeconds = std::chrono::duration<double>(kRound).count();
  Rounds gaps;
  Rounds often;
  bool any = false;
  for (int round = 0; round < settings.Rounds(10); ++round) {
    const std::vector<double> found = Gaps();
    if (!found.empty()) gaps.Add(found);
    any |= !found.empty();
    often.Add((static_cast<double>(found.size()) + 1e-9) / kRoundSeconds);
  }
  std::vector<Row> rows{MakeRow("machine.interruptions", "1/s", often)};
  rows.back().note = "of more than 3 us";
  if (any) rows.push_back(MakeRow("machine.interruption", "us", gaps));
  return rows;
}

}  // namespace bench
